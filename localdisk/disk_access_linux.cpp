// Linux device access and volume files. A drive is a whole disk or an image
// file, resolved and opened once and held for the whole installation; the
// tools get the held descriptor as /proc/PID/fd/N, so that a name changed
// meanwhile cannot send them elsewhere. The new FAT volume is written
// through mtools, which works on an unmounted volume and, for image files,
// without root.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "app/log.h"
#include "localdisk/child_process.h"
#include "localdisk/disk_access.h"
#include "localdisk/linux_disks.h"

namespace tarnlift::localdisk {
namespace {

constexpr uint32_t kToolTimeoutMs = 600000;
constexpr uint32_t kDiskDeviceType = 7;  // a disk, as the Windows query calls it

class LinuxDevice : public Device {
 public:
  // number: the held drive's device number, or none (-1) for the whole disk.
  LinuxDevice(int fd, int64_t number) : fd_(fd), number_(number) {}
  ~LinuxDevice() override {
    if (fd_ >= 0) ::close(fd_);
  }
  int read(uint8_t* buffer, uint32_t size) override {
    ssize_t count = ::read(fd_, buffer, size);
    if (count < 0) {
      logLine() << "Read from device failed";
      return -1;
    }
    return static_cast<int>(count);
  }
  int write(const uint8_t* buffer, uint32_t size) override {
    ssize_t count = ::write(fd_, buffer, size);
    if (count < 0) {
      logLine() << "Write from device failed";
      return -1;
    }
    return static_cast<int>(count);
  }
  bool seek(uint64_t offset) override {
    if (lseek(fd_, static_cast<off_t>(offset), SEEK_SET) < 0) {
      logLine() << "Seeking device failed";
      return false;
    }
    return true;
  }
  int deviceNumber(StorageDeviceNumber& number) override {
    if (number_ < 0 || fd_ < 0) {
      logLine() << "I/O Operation failed";
      return -1;
    }
    number.deviceType = kDiskDeviceType;
    number.deviceNumber = static_cast<uint32_t>(number_);
    // Only whole disks are held: there is no partition.
    number.partitionNumber = 0;
    return kStorageDeviceNumberSize;
  }
  bool close() override {
    bool ok = fsync(fd_) == 0 || errno == EINVAL;
    ok = ::close(fd_) == 0 && ok;
    fd_ = -1;
    if (!ok) logLine() << "Closing handle failed";
    return ok;
  }

 private:
  int fd_;
  int64_t number_;
};

// The held drive's number: the analogue of a physical drive's number,
// different for each drive this process holds.
std::atomic<uint32_t> nextDeviceNumber{0};

std::string fdPath(pid_t pid, int fd) { return "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd); }

class LinuxHeldDrive : public HeldDrive {
 public:
  LinuxHeldDrive(LinuxSystem& system, LinuxTarget target, int plain, int exclusive)
      : system_(system), target_(std::move(target)), plain_(plain), exclusive_(exclusive), number_(nextDeviceNumber++) {
    // Children reach the held descriptor through the proc file system (the
    // kernel opens the very same file or device); without one mounted they
    // get the resolved name, checked before every step.
    reach_.path = access("/proc/self/fd", X_OK) == 0 ? fdPath(getpid(), plain_) : target_.resolved;
  }
  ~LinuxHeldDrive() override {
    if (exclusive_ >= 0) ::close(exclusive_);
    ::close(plain_);
  }
  std::unique_ptr<Device> openVolume() override {
    int fd = fcntl(plain_, F_DUPFD_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    return std::make_unique<LinuxDevice>(fd, number_);
  }
  std::unique_ptr<Device> openPhysical(uint32_t deviceNumber, std::string& reason) override {
    if (deviceNumber != number_) {
      reason = "device number " + std::to_string(deviceNumber) + " is not that of " + target_.path;
      return nullptr;
    }
    int fd = fcntl(plain_, F_DUPFD_CLOEXEC, 0);
    if (fd < 0) {
      reason = "cannot open " + target_.path + " again: " + std::strerror(errno);
      return nullptr;
    }
    return std::make_unique<LinuxDevice>(fd, -1);
  }
  bool unchanged(std::string& reason) override {
    // What is held was checked to be target_.facts when it was opened.
    PathFacts now = system_.facts(target_.path);
    if (now.kind == PathFacts::Missing) {
      reason = target_.path + " is gone since it was checked";
      return false;
    }
    if (!now.sameObject(target_.facts)) {
      reason = target_.path + " changed since it was checked: it now leads to " + system_.resolve(target_.path) +
               ", not to the " + (target_.device ? "device " : "file ") + target_.resolved + " that was checked";
      return false;
    }
    return linuxTargetFree(system_, target_, reason);
  }
  void lendToFormatter() override {
    // The formatter opens a device exclusively itself.
    if (exclusive_ >= 0) ::close(exclusive_);
    exclusive_ = -1;
  }
  bool takeBack(std::string& reason) override {
    if (target_.device) {
      exclusive_ = ::open(fdPath(getpid(), plain_).c_str(), O_RDWR | O_EXCL | O_CLOEXEC);
      if (exclusive_ < 0) {
        reason = target_.path + " was taken while it was formatted (" + std::strerror(errno) +
                 "): it is mounted or opened exclusively by another program";
        return false;
      }
    }
    return unchanged(reason);
  }
  DriveId reach() const override { return reach_; }
  std::string bootLoaderTarget() const override { return reach_.path; }

 private:
  LinuxSystem& system_;
  LinuxTarget target_;
  int plain_;
  int exclusive_;
  uint32_t number_;
  DriveId reach_;
};

class LinuxDiskAccess : public DiskAccess {
 public:
  bool check(const DriveId& drive, std::string& reason) override {
    LinuxTarget target;
    return checkLinuxTarget(realLinuxSystem(), drive.path, target, reason);
  }
  std::unique_ptr<HeldDrive> hold(const DriveId& drive, std::string& reason) override {
    LinuxTarget target;
    return holdLinuxTarget(realLinuxSystem(), drive.path, target, reason);
  }
};

void logToolOutput(const std::string& output) {
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty()) logLine() << line;
  }
}

bool mtools(const std::vector<std::string>& arguments, bool logFailure = true) {
  std::string program = findProgram(arguments[0]);
  if (program.empty()) {
    logLine() << "cannot find " << arguments[0];
    return false;
  }
  std::vector<std::string> argv = arguments;
  argv[0] = program;
  std::string output;
  int code = runTool(argv, output, kToolTimeoutMs);
  if (code != 0 && logFailure) logToolOutput(output);
  return code == 0;
}

// A new file is gathered in a temporary file and copied in as a whole.
class MtoolsOutputFile : public OutputFile {
 public:
  MtoolsOutputFile(std::string disk, std::string name, std::string temporary, int fd)
      : disk_(std::move(disk)), name_(std::move(name)), temporary_(std::move(temporary)), fd_(fd) {}
  ~MtoolsOutputFile() override {
    if (fd_ >= 0) ::close(fd_);
    ::unlink(temporary_.c_str());
  }
  bool write(const uint8_t* data, size_t size) override {
    size_t done = 0;
    while (done < size) {
      ssize_t written = ::write(fd_, data + done, size - done);
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return false;
      done += static_cast<size_t>(written);
    }
    return true;
  }
  bool close() override {
    bool ok = ::close(fd_) == 0;
    fd_ = -1;
    return mtools({"mcopy", "-i", disk_, "-o", temporary_, "::" + name_}) && ok;
  }

 private:
  std::string disk_;
  std::string name_;
  std::string temporary_;
  int fd_;
};

class MtoolsVolumeFiles : public VolumeFiles {
 public:
  MtoolsVolumeFiles() {
    // The volume is whole-disk FAT with no partition table, which mtools'
    // geometry check would refuse; syslinux runs mtools too and inherits it.
    setenv("MTOOLS_SKIP_CHECK", "1", 1);
  }
  std::unique_ptr<OutputFile> createNew(const DriveId& drive, const std::string& name) override {
    const std::string& disk = drive.path;
    // Created only if absent: a name already on the volume is a failure.
    if (mtools({"mdir", "-i", disk, "-b", "::" + name}, false)) return nullptr;
    const char* directory = std::getenv("TMPDIR");
    std::string pattern = std::string(directory != nullptr && directory[0] != 0 ? directory : "/tmp") +
                          "/tarnlift-volume-file-XXXXXX";
    int fd = mkstemp(pattern.data());
    if (fd < 0) return nullptr;
    return std::make_unique<MtoolsOutputFile>(disk, name, pattern, fd);
  }
  bool copyInto(const DriveId& drive, const std::string& source, const std::string& name) override {
    return mtools({"mcopy", "-i", drive.path, "-o", source, "::" + name});
  }
};

}  // namespace

std::unique_ptr<DiskAccess> makePlatformDiskAccess() { return std::make_unique<LinuxDiskAccess>(); }
std::unique_ptr<VolumeFiles> makePlatformVolumeFiles() { return std::make_unique<MtoolsVolumeFiles>(); }
const char* bootLoaderInstallerName() { return "syslinux"; }

std::unique_ptr<HeldDrive> holdLinuxTarget(LinuxSystem& system, const std::string& path, LinuxTarget& target,
                                           std::string& reason) {
  if (!checkLinuxTarget(system, path, target, reason)) return nullptr;
  // The checked name, opened once: never through a link put in its place
  // since (O_NOFOLLOW), exclusively for a device, which the kernel refuses
  // while anything has it mounted and refuses to mount while it is held.
  int flags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | (target.device ? O_EXCL : 0);
  int first = ::open(target.resolved.c_str(), flags);
  if (first < 0) {
    reason = "cannot open " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  struct stat opened {};
  fstat(first, &opened);
  PathFacts held;
  held.kind = S_ISBLK(opened.st_mode) ? PathFacts::Block : S_ISREG(opened.st_mode) ? PathFacts::Regular : PathFacts::Other;
  held.device = opened.st_dev;
  held.inode = opened.st_ino;
  held.rdev = S_ISBLK(opened.st_mode) ? opened.st_rdev : 0;
  if (!held.sameObject(target.facts)) {
    ::close(first);
    reason = path + " changed between the check and the open";
    return nullptr;
  }
  int exclusive = -1;
  int plain = first;
  if (target.device) {
    // A second, plain descriptor of the same device stays while the
    // exclusive one is lent to the formatter.
    exclusive = first;
    plain = ::open(fdPath(getpid(), first).c_str(), O_RDWR | O_CLOEXEC);
    if (plain < 0) {
      reason = "cannot open " + path + ": " + std::strerror(errno);
      ::close(exclusive);
      return nullptr;
    }
  }
  return std::make_unique<LinuxHeldDrive>(system, target, plain, exclusive);
}

}  // namespace tarnlift::localdisk
