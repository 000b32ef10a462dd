// The running machine's facts for the disk rules: stat, /sys/block,
// /proc/self/mountinfo, /proc/swaps and the loop devices' backing files;
// and the checked target, opened once and held for a whole installation.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/loop.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#include "app/log.h"
#include "localdisk/disk_access.h"
#include "localdisk/linux_disks.h"

namespace tarnlift::localdisk {
namespace {

std::vector<std::string> entries(const std::string& directory) {
  std::vector<std::string> names;
  if (DIR* dir = opendir(directory.c_str())) {
    while (dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.') names.push_back(entry->d_name);
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool exists(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0;
}

std::string baseName(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\n')) text.pop_back();
  size_t first = text.find_first_not_of(' ');
  return first == std::string::npos ? std::string() : text.substr(first);
}

// "8:16" as a /sys dev attribute or a mountinfo field.
uint64_t deviceOf(const std::string& text) {
  unsigned major = 0, minor = 0;
  if (std::sscanf(text.c_str(), "%u:%u", &major, &minor) != 2) return 0;
  return makedev(major, minor);
}

// /proc files write blanks and the like in names as octal escapes.
std::string unescaped(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size()) {
      unsigned value = 0;
      if (std::sscanf(text.substr(i + 1, 3).c_str(), "%3o", &value) == 1) {
        out += static_cast<char>(value);
        i += 3;
        continue;
      }
    }
    out += text[i];
  }
  return out;
}

class RealLinuxSystem : public LinuxSystem {
 public:
  PathFacts facts(const std::string& path) override {
    PathFacts result;
    struct stat info {};
    if (path.empty() || stat(path.c_str(), &info) != 0) return result;
    result.kind = S_ISBLK(info.st_mode) ? PathFacts::Block : S_ISREG(info.st_mode) ? PathFacts::Regular : PathFacts::Other;
    result.device = info.st_dev;
    result.inode = info.st_ino;
    result.rdev = S_ISBLK(info.st_mode) ? info.st_rdev : 0;
    result.size = S_ISREG(info.st_mode) ? static_cast<uint64_t>(info.st_size) : 0;
    return result;
  }
  std::string resolve(const std::string& path) override {
    char resolved[PATH_MAX];
    if (path.empty() || realpath(path.c_str(), resolved) == nullptr) return {};
    return resolved;
  }
  bool block(uint64_t rdev, BlockFacts& facts) override {
    char resolved[PATH_MAX];
    std::string link = "/sys/dev/block/" + std::to_string(major(rdev)) + ":" + std::to_string(minor(rdev));
    if (realpath(link.c_str(), resolved) == nullptr) return false;
    std::string sys = resolved;
    facts = BlockFacts{};
    facts.name = baseName(sys);
    facts.partition = exists(sys + "/partition");
    facts.disk = facts.partition ? baseName(sys.substr(0, sys.rfind('/'))) : facts.name;
    describeDisk(facts);
    return true;
  }
  bool blockByName(const std::string& name, BlockFacts& facts) override {
    if (!exists("/sys/block/" + name)) return false;
    facts = BlockFacts{};
    facts.name = name;
    facts.disk = name;
    describeDisk(facts);
    return true;
  }
  DiskMembers members(const std::string& disk) override {
    DiskMembers result;
    std::string base = "/sys/block/" + disk;
    std::vector<std::string> parts{base};
    for (const std::string& entry : entries(base)) {
      if (exists(base + "/" + entry + "/partition")) parts.push_back(base + "/" + entry);
    }
    std::vector<std::string> holderDirs;
    for (const std::string& part : parts) {
      if (uint64_t device = deviceOf(firstLineOf(part + "/dev"))) result.devices.push_back(device);
      holderDirs.push_back(part + "/holders");
    }
    // What is built on a holder (LVM on RAID, a mapping on LVM) is in use too.
    std::set<std::string> seen;
    for (size_t i = 0; i < holderDirs.size() && i < 256; ++i) {
      for (const std::string& holder : entries(holderDirs[i])) {
        if (!seen.insert(holder).second) continue;
        result.holders.push_back(holder);
        if (uint64_t device = deviceOf(firstLineOf("/sys/block/" + holder + "/dev"))) {
          result.holderDevices.push_back(device);
        }
        holderDirs.push_back("/sys/block/" + holder + "/holders");
      }
    }
    return result;
  }
  std::vector<MountEntry> mounts() override {
    std::vector<MountEntry> result;
    std::ifstream mountinfo("/proc/self/mountinfo");
    for (std::string line; std::getline(mountinfo, line);) {
      std::istringstream fields(line);
      std::string id, parent, dev, root, mountPoint;
      fields >> id >> parent >> dev >> root >> mountPoint;
      std::string word, fsType, source;
      while (fields >> word && word != "-") {
      }
      fields >> fsType >> source;
      MountEntry entry;
      entry.device = deviceOf(dev);
      entry.mountPoint = unescaped(mountPoint);
      // Some file systems (btrfs) report a device number of their own; the
      // source names the real one.
      struct stat info {};
      std::string sourcePath = unescaped(source);
      if (sourcePath.rfind("/dev/", 0) == 0 && stat(sourcePath.c_str(), &info) == 0 && S_ISBLK(info.st_mode)) {
        entry.sourceDevice = info.st_rdev;
      }
      result.push_back(entry);
    }
    return result;
  }
  std::vector<SwapEntry> swaps() override {
    std::vector<SwapEntry> result;
    std::ifstream swaps("/proc/swaps");
    std::string header;
    std::getline(swaps, header);
    for (std::string line; std::getline(swaps, line);) {
      SwapEntry entry;
      entry.path = unescaped(line.substr(0, line.find_first_of(" \t")));
      entry.facts = facts(entry.path);
      result.push_back(entry);
    }
    return result;
  }
  std::vector<LoopEntry> loops() override {
    std::vector<LoopEntry> result;
    for (const std::string& name : entries("/sys/block")) {
      if (name.rfind("loop", 0) != 0) continue;
      std::string backing = firstLineOf("/sys/block/" + name + "/loop/backing_file");
      if (backing.empty()) continue;  // not attached
      LoopEntry entry;
      entry.name = name;
      entry.backingFile = backing;
      // The kernel's own record of the backing file: right even when the
      // file was renamed or removed since it was attached.
      int fd = ::open(("/dev/" + name).c_str(), O_RDONLY | O_CLOEXEC);
      loop_info64 info{};
      if (fd >= 0 && ioctl(fd, LOOP_GET_STATUS64, &info) == 0) {
        entry.device = info.lo_device;
        entry.inode = info.lo_inode;
        entry.rdevice = info.lo_rdevice;
      } else {
        const std::string deleted = " (deleted)";
        if (backing.size() > deleted.size() && backing.compare(backing.size() - deleted.size(), deleted.size(), deleted) == 0) {
          backing.resize(backing.size() - deleted.size());
        }
        PathFacts file = facts(backing);
        entry.device = file.device;
        entry.inode = file.inode;
        entry.rdevice = file.rdev;
      }
      if (fd >= 0) ::close(fd);
      result.push_back(entry);
    }
    return result;
  }
  std::vector<std::string> disks() override { return entries("/sys/block"); }

 private:
  static void describeDisk(BlockFacts& facts) {
    std::string base = "/sys/block/" + facts.disk;
    facts.removable = firstLineOf(base + "/removable") == "1";
    facts.bytes = std::strtoull(firstLineOf(base + "/size").c_str(), nullptr, 10) * 512;
    std::string vendor = trimmed(firstLineOf(base + "/device/vendor"));
    std::string model = trimmed(firstLineOf(base + "/device/model"));
    facts.model = vendor.empty() ? model : model.empty() ? vendor : vendor + " " + model;
  }
};

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
      app::logLine() << "Read from device failed";
      return -1;
    }
    return static_cast<int>(count);
  }
  int write(const uint8_t* buffer, uint32_t size) override {
    ssize_t count = ::write(fd_, buffer, size);
    if (count < 0) {
      app::logLine() << "Write from device failed";
      return -1;
    }
    return static_cast<int>(count);
  }
  bool seek(uint64_t offset) override {
    if (lseek(fd_, static_cast<off_t>(offset), SEEK_SET) < 0) {
      app::logLine() << "Seeking device failed";
      return false;
    }
    return true;
  }
  int deviceNumber(StorageDeviceNumber& number) override {
    if (number_ < 0 || fd_ < 0) {
      app::logLine() << "I/O Operation failed";
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
    if (!ok) app::logLine() << "Closing handle failed";
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

}  // namespace

LinuxSystem& realLinuxSystem() {
  static RealLinuxSystem system;
  return system;
}

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
