// The running machine's facts for the disk rules: stat, /sys/block,
// /proc/self/mountinfo, /proc/swaps and the loop devices' backing files.
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
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

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

}  // namespace

LinuxSystem& realLinuxSystem() {
  static RealLinuxSystem system;
  return system;
}

}  // namespace tarnlift::localdisk
