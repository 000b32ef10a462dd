// Linux device access and volume files. A drive is a whole disk or an image
// file; a partition named by the user stands for its disk (the analogue of
// the volume-to-physical-drive step on Windows). The new FAT volume is
// written through mtools, which works on an unmounted volume and, for image
// files, without root.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>

#include "app/log.h"
#include "localdisk/child_process.h"
#include "localdisk/disk_access.h"
#include "localdisk/linux_disks.h"

namespace tarnlift::localdisk {
namespace {

constexpr uint32_t kToolTimeoutMs = 600000;
constexpr uint32_t kDiskDeviceType = 7;  // a disk, as the Windows query calls it

bool exists(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0;
}

std::string devText(dev_t device) { return std::to_string(major(device)) + ":" + std::to_string(minor(device)); }

std::string baseName(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::vector<std::string> entries(const std::string& directory) {
  std::vector<std::string> names;
  std::ifstream probe;
  if (DIR* dir = opendir(directory.c_str())) {
    while (dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.') names.push_back(entry->d_name);
    }
    closedir(dir);
  }
  return names;
}

// The /sys/class/block directory of a block device path; empty otherwise.
std::string sysDirectoryOf(const std::string& path, bool& isBlock) {
  isBlock = false;
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISBLK(info.st_mode)) return {};
  isBlock = true;
  char resolved[PATH_MAX];
  std::string link = "/sys/dev/block/" + devText(info.st_rdev);
  if (realpath(link.c_str(), resolved) == nullptr) return {};
  return resolved;
}

class LinuxDevice : public Device {
 public:
  LinuxDevice(int fd, std::string wholeDisk, uint32_t partition, std::vector<std::string>* table, std::mutex* lock)
      : fd_(fd), wholeDisk_(std::move(wholeDisk)), partition_(partition), table_(table), lock_(lock) {}
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
    if (table_ == nullptr || wholeDisk_.empty()) {
      logLine() << "I/O Operation failed";
      return -1;
    }
    std::lock_guard<std::mutex> guard(*lock_);
    auto found = std::find(table_->begin(), table_->end(), wholeDisk_);
    if (found == table_->end()) found = table_->insert(table_->end(), wholeDisk_);
    number.deviceType = kDiskDeviceType;
    number.deviceNumber = static_cast<uint32_t>(found - table_->begin());
    number.partitionNumber = partition_;
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
  std::string wholeDisk_;
  uint32_t partition_;
  std::vector<std::string>* table_;
  std::mutex* lock_;
};

int openForWriting(const std::string& path) {
  struct stat info {};
  int flags = O_RDWR | O_CLOEXEC;
  // A block device opened exclusively cannot be in use by a mount.
  if (stat(path.c_str(), &info) == 0 && S_ISBLK(info.st_mode)) flags |= O_EXCL;
  return ::open(path.c_str(), flags);
}

class LinuxDiskAccess : public DiskAccess {
 public:
  std::unique_ptr<Device> openVolume(const DriveId& drive) override {
    std::string reason;
    if (!driveUsable(drive, reason)) {
      logLine() << "refused: " << reason;
      return nullptr;
    }
    int fd = openForWriting(drive.path);
    if (fd < 0) return nullptr;
    return std::make_unique<LinuxDevice>(fd, wholeDiskPath(drive.path), partitionNumberOf(drive.path), &disks_,
                                         &lock_);
  }
  std::unique_ptr<Device> openPhysical(uint32_t deviceNumber) override {
    std::string path;
    {
      std::lock_guard<std::mutex> guard(lock_);
      if (deviceNumber >= disks_.size()) return nullptr;
      path = disks_[deviceNumber];
    }
    int fd = openForWriting(path);
    if (fd < 0) return nullptr;
    return std::make_unique<LinuxDevice>(fd, path, 0, nullptr, nullptr);
  }
  std::string bootLoaderTarget(const DriveId& drive) override { return wholeDiskPath(drive.path); }

 private:
  std::mutex lock_;
  std::vector<std::string> disks_;  // device number -> whole disk
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
    std::string disk = wholeDiskPath(drive.path);
    if (disk.empty()) return nullptr;
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
    std::string disk = wholeDiskPath(drive.path);
    if (disk.empty()) return false;
    return mtools({"mcopy", "-i", disk, "-o", source, "::" + name});
  }
};

}  // namespace

std::unique_ptr<DiskAccess> makePlatformDiskAccess() { return std::make_unique<LinuxDiskAccess>(); }
std::unique_ptr<VolumeFiles> makePlatformVolumeFiles() { return std::make_unique<MtoolsVolumeFiles>(); }
const char* bootLoaderInstallerName() { return "syslinux"; }

std::string firstLineOf(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

std::string wholeDiskPath(const std::string& path) {
  struct stat info {};
  if (path.empty() || stat(path.c_str(), &info) != 0) return {};
  if (S_ISREG(info.st_mode)) return path;
  bool isBlock = false;
  std::string sys = sysDirectoryOf(path, isBlock);
  if (sys.empty()) return {};
  if (exists(sys + "/partition")) sys = sys.substr(0, sys.rfind('/'));
  return "/dev/" + baseName(sys);
}

uint32_t partitionNumberOf(const std::string& path) {
  bool isBlock = false;
  std::string sys = sysDirectoryOf(path, isBlock);
  if (sys.empty()) return 0;
  return static_cast<uint32_t>(std::strtoul(firstLineOf(sys + "/partition").c_str(), nullptr, 10));
}

DiskUse diskUse(const std::string& name) {
  DiskUse use;
  std::string base = "/sys/block/" + name;
  std::set<std::string> devices;
  std::vector<std::string> parts{base};
  for (const std::string& entry : entries(base)) {
    if (exists(base + "/" + entry + "/partition")) parts.push_back(base + "/" + entry);
  }
  for (const std::string& part : parts) {
    std::string dev = firstLineOf(part + "/dev");
    if (!dev.empty()) devices.insert(dev);
    for (const std::string& holder : entries(part + "/holders")) {
      use.held = true;
      std::string holderDev = firstLineOf("/sys/block/" + holder + "/dev");
      if (!holderDev.empty()) devices.insert(holderDev);
    }
  }
  std::ifstream mountinfo("/proc/self/mountinfo");
  for (std::string line; std::getline(mountinfo, line);) {
    std::istringstream fields(line);
    std::string id, parent, dev, root, mountPoint;
    fields >> id >> parent >> dev >> root >> mountPoint;
    std::string word, source;
    while (fields >> word && word != "-") {
    }
    std::string fsType;
    fields >> fsType >> source;
    bool ours = devices.count(dev) != 0;
    struct stat info {};
    if (!ours && source.rfind("/dev/", 0) == 0 && stat(source.c_str(), &info) == 0 && S_ISBLK(info.st_mode)) {
      ours = devices.count(devText(info.st_rdev)) != 0;
    }
    if (!ours) continue;
    use.mounts.push_back(mountPoint);
    if (mountPoint == "/" || mountPoint == "/boot" || mountPoint == "/boot/efi") use.system = true;
  }
  std::ifstream swaps("/proc/swaps");
  std::string header;
  std::getline(swaps, header);
  for (std::string line; std::getline(swaps, line);) {
    std::string swapPath = line.substr(0, line.find_first_of(" \t"));
    struct stat info {};
    if (stat(swapPath.c_str(), &info) != 0) continue;
    dev_t device = S_ISBLK(info.st_mode) ? info.st_rdev : info.st_dev;
    if (devices.count(devText(device)) != 0) {
      use.swap = true;
      use.system = true;
    }
  }
  return use;
}

bool driveUsable(const DriveId& drive, std::string& reason) {
  const std::string& path = drive.path;
  struct stat info {};
  if (path.empty()) {
    reason = "no drive named";
    return false;
  }
  if (stat(path.c_str(), &info) != 0) {
    reason = path + " does not exist";
    return false;
  }
  if (S_ISREG(info.st_mode)) return true;
  if (!S_ISBLK(info.st_mode)) {
    reason = path + " is neither a disk nor a disk image file";
    return false;
  }
  std::string disk = wholeDiskPath(path);
  if (disk.empty()) {
    reason = path + " is not a disk known to the system";
    return false;
  }
  std::string name = baseName(disk);
  switch (blockDiskType(name)) {
    case kDriveCdRom:
      reason = path + " is an optical drive, not a disk";
      return false;
    case kDriveRamDisk:
      reason = path + " is a RAM disk, not a disk";
      return false;
    case kDriveRemote:
      reason = path + " is a network block device, not a local disk";
      return false;
    case kDriveUnknown:
      if (name.rfind("loop", 0) != 0) {
        reason = path + " is a mapped, RAID or floppy device, not a disk";
        return false;
      }
      break;
    default:
      break;
  }
  DiskUse use = diskUse(name);
  if (use.system) {
    reason = disk + " holds the running system";
    return false;
  }
  if (!use.mounts.empty()) {
    reason = disk + " has a mounted file system (" + use.mounts.front() + "): unmount it first";
    return false;
  }
  if (use.swap) {
    reason = disk + " is used for swap";
    return false;
  }
  if (use.held) {
    reason = disk + " is in use by a mapped or RAID device";
    return false;
  }
  return true;
}

}  // namespace tarnlift::localdisk
