// Made-up machines for the disk rules: a Linux system (paths, block
// devices, mounts, swaps, loop devices) and a Windows one (volumes on
// physical disks, the system's folders and page files). The window's test
// program uses the Windows one too.
#pragma once

#include <cctype>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "localdisk/linux_disks.h"
#include "localdisk/windows_drives.h"

namespace tarnlift::localdisk::testing {

// ---- Linux ---------------------------------------------------------------------

inline uint64_t deviceNumber(unsigned major, unsigned minor) { return uint64_t(major) << 20 | minor; }

class FakeLinuxSystem : public LinuxSystem {
 public:
  // A whole disk /dev/NAME with partitions NAME1, NAME2, ... (minor + i).
  void addDisk(const std::string& name, unsigned major, unsigned minor, int partitions = 0, bool removable = false,
               uint64_t bytes = 16000000000ull, const std::string& model = "Maker Disk") {
    BlockFacts disk;
    disk.name = name;
    disk.disk = name;
    disk.removable = removable;
    disk.bytes = bytes;
    disk.model = model;
    addBlock(disk, deviceNumber(major, minor));
    DiskMembers& members = membersOf[name];
    members.devices.push_back(deviceNumber(major, minor));
    for (int i = 1; i <= partitions; ++i) {
      BlockFacts part = disk;
      part.name = name + (std::isdigit(static_cast<unsigned char>(name.back())) ? "p" : "") + std::to_string(i);
      part.partition = true;
      addBlock(part, deviceNumber(major, minor + static_cast<unsigned>(i)));
      members.devices.push_back(deviceNumber(major, minor + static_cast<unsigned>(i)));
    }
  }
  void addFile(const std::string& path, uint64_t device, uint64_t inode, uint64_t size = 1 << 20) {
    PathFacts file;
    file.kind = PathFacts::Regular;
    file.device = device;
    file.inode = inode;
    file.size = size;
    paths[path] = file;
  }
  void addOther(const std::string& path) {
    PathFacts other;
    other.kind = PathFacts::Other;
    paths[path] = other;
  }

  PathFacts facts(const std::string& path) override {
    std::string resolved = resolve(path);
    return resolved.empty() ? PathFacts{} : paths[resolved];
  }
  std::string resolve(const std::string& path) override {
    std::string at = path;
    for (int i = 0; i < 10 && links.count(at) != 0; ++i) at = links[at];
    return paths.count(at) != 0 ? at : std::string();
  }
  bool block(uint64_t rdev, BlockFacts& facts) override {
    auto found = blocks.find(rdev);
    if (found == blocks.end()) return false;
    facts = found->second;
    return true;
  }
  bool blockByName(const std::string& name, BlockFacts& facts) override {
    for (const auto& [rdev, block] : blocks) {
      if (block.name == name) {
        facts = block;
        return true;
      }
    }
    return false;
  }
  DiskMembers members(const std::string& disk) override { return membersOf[disk]; }
  std::vector<MountEntry> mounts() override { return mountList; }
  std::vector<SwapEntry> swaps() override { return swapList; }
  std::vector<LoopEntry> loops() override { return loopList; }
  std::vector<std::string> disks() override {
    std::vector<std::string> names;
    for (const auto& [rdev, block] : blocks) {
      if (!block.partition) names.push_back(block.name);
    }
    return names;
  }

  std::map<std::string, std::string> links;  // a link and what it points to
  std::map<std::string, PathFacts> paths;    // resolved paths
  std::map<uint64_t, BlockFacts> blocks;
  std::map<std::string, DiskMembers> membersOf;
  std::vector<MountEntry> mountList;
  std::vector<SwapEntry> swapList;
  std::vector<LoopEntry> loopList;

 private:
  void addBlock(const BlockFacts& block, uint64_t rdev) {
    blocks[rdev] = block;
    PathFacts node;
    node.kind = PathFacts::Block;
    node.device = 5;  // devtmpfs
    node.inode = rdev;
    node.rdev = rdev;
    paths["/dev/" + block.name] = node;
  }
};

// ---- Windows -------------------------------------------------------------------

struct FakeVolumeEntry {
  char letter = 0;  // 0: no drive letter
  std::string name;
  uint32_t type = kDriveFixed;
  std::vector<uint32_t> disks;
};

struct FakePhysicalDisk {
  uint32_t number = 0;
  uint64_t bytes = 0;
  std::string model;
  std::vector<uint8_t> bytesAtStart = std::vector<uint8_t>(1024, 0xAB);
};

class FakeWindowsStorage;

// A volume or physical drive handle of the made-up machine; what it is asked
// goes into the machine's journal.
class FakeWindowsDevice : public WindowsDevice {
 public:
  FakeWindowsDevice(FakeWindowsStorage& storage, std::string name, char letter, uint32_t disk)
      : storage_(storage), name_(std::move(name)), letter_(letter), disk_(disk) {}
  int read(uint8_t* buffer, uint32_t size) override;
  int write(const uint8_t* buffer, uint32_t size) override;
  bool seek(uint64_t offset) override;
  int deviceNumber(StorageDeviceNumber& number) override;
  bool close() override;
  bool lockVolume() override;
  bool dismountVolume() override;
  bool unlockVolume() override;
  std::unique_ptr<Device> duplicate() override {
    return std::make_unique<FakeWindowsDevice>(storage_, name_, letter_, disk_);
  }

 private:
  FakeWindowsStorage& storage_;
  std::string name_;  // "volume E" or "physical 1"
  char letter_;
  uint32_t disk_;
  uint64_t position_ = 0;
};

class FakeWindowsStorage : public WindowsStorage {
 public:
  // One system disk 0 with C: (system, Windows folder, page file).
  FakeWindowsStorage() {
    disks.push_back({0, 500107862016ull, "WDC WD5000AAKX"});
    volumeList.push_back({'C', "\\\\?\\Volume{c}\\", kDriveFixed, {0}});
  }
  FakeVolumeEntry& addVolume(char letter, uint32_t type, uint32_t disk) {
    volumeList.push_back({letter, std::string("\\\\?\\Volume{") + letter + "}\\", type, {disk}});
    return volumeList.back();
  }
  void addDisk(uint32_t number, uint64_t bytes, const std::string& model) { disks.push_back({number, bytes, model}); }

  std::vector<std::string> driveRoots() override {
    std::vector<std::string> roots;
    for (const FakeVolumeEntry& volume : volumeList) {
      if (volume.letter != 0) roots.push_back(std::string(1, volume.letter) + ":\\");
    }
    return roots;
  }
  uint32_t driveType(const std::string& root) override {
    const FakeVolumeEntry* volume = byLetter(root[0]);
    return volume != nullptr ? volume->type : 1;
  }
  std::string systemDirectory() override { return systemDirectoryPath; }
  std::string windowsDirectory() override { return windowsDirectoryPath; }
  std::vector<std::string> pageFiles() override { return pageFileList; }
  std::string volumeOf(const std::string& path) override {
    const FakeVolumeEntry* volume = path.empty() ? nullptr : byLetter(path[0]);
    return volume != nullptr ? volume->name : std::string();
  }
  std::vector<WindowsVolume> volumes() override {
    std::vector<WindowsVolume> result;
    for (const FakeVolumeEntry& volume : volumeList) {
      WindowsVolume entry;
      entry.name = volume.name;
      if (volume.letter != 0) entry.paths.push_back(std::string(1, volume.letter) + ":\\");
      entry.disks = volume.disks;
      result.push_back(entry);
    }
    return result;
  }
  std::unique_ptr<WindowsDevice> openVolume(char letter, bool write) override {
    note(std::string("open volume ") + letter + (write ? " rw" : ""));
    const FakeVolumeEntry* volume = byLetter(letter);
    if (volume == nullptr || (write && refuseWrite)) return nullptr;
    return std::make_unique<FakeWindowsDevice>(*this, std::string("volume ") + letter, letter, 0);
  }
  std::unique_ptr<WindowsDevice> openPhysicalDrive(uint32_t number, bool write) override {
    note("open physical " + std::to_string(number) + (write ? " rw" : ""));
    if (disk(number) == nullptr) return nullptr;
    return std::make_unique<FakeWindowsDevice>(*this, "physical " + std::to_string(number), 0, number);
  }
  bool describeDisk(uint32_t number, DiskDescription& description) override {
    const FakePhysicalDisk* found = disk(number);
    if (found == nullptr) return false;
    description.bytes = found->bytes;
    description.model = found->model;
    return true;
  }

  FakeVolumeEntry* byLetter(char letter) {
    for (FakeVolumeEntry& volume : volumeList) {
      if (volume.letter != 0 && std::toupper(static_cast<unsigned char>(volume.letter)) ==
                                    std::toupper(static_cast<unsigned char>(letter))) {
        return &volume;
      }
    }
    return nullptr;
  }
  FakePhysicalDisk* disk(uint32_t number) {
    for (FakePhysicalDisk& entry : disks) {
      if (entry.number == number) return &entry;
    }
    return nullptr;
  }
  void note(const std::string& entry) {
    journal.push_back(entry);
    if (onJournal) onJournal(entry);
  }

  std::vector<FakePhysicalDisk> disks;
  std::vector<FakeVolumeEntry> volumeList;
  std::string systemDirectoryPath = "C:\\Windows\\system32";
  std::string windowsDirectoryPath = "C:\\Windows";
  std::vector<std::string> pageFileList{"C:\\pagefile.sys"};
  std::map<uint32_t, uint32_t> renumbered;  // a physical drive that answers another number
  bool refuseWrite = false;
  bool lockFails = false;
  std::vector<std::string> journal;
  std::function<void(const std::string&)> onJournal;  // changes the machine at a given moment
};

inline int FakeWindowsDevice::read(uint8_t* buffer, uint32_t size) {
  storage_.note(name_ + " read " + std::to_string(size));
  FakePhysicalDisk* disk = storage_.disk(disk_);
  if (disk == nullptr || letter_ != 0) return -1;
  for (uint32_t i = 0; i < size; ++i) buffer[i] = disk->bytesAtStart[position_ + i];
  return static_cast<int>(size);
}

inline int FakeWindowsDevice::write(const uint8_t* buffer, uint32_t size) {
  storage_.note(name_ + " write " + std::to_string(size));
  FakePhysicalDisk* disk = storage_.disk(disk_);
  if (disk == nullptr || letter_ != 0) return -1;
  for (uint32_t i = 0; i < size; ++i) disk->bytesAtStart[position_ + i] = buffer[i];
  return static_cast<int>(size);
}

inline bool FakeWindowsDevice::seek(uint64_t offset) {
  position_ = offset;
  return true;
}

inline int FakeWindowsDevice::deviceNumber(StorageDeviceNumber& number) {
  storage_.note(name_ + " device number");
  number.deviceType = 7;
  if (letter_ != 0) {
    const FakeVolumeEntry* volume = storage_.byLetter(letter_);
    if (volume == nullptr || volume->disks.empty()) return -1;
    number.deviceNumber = volume->disks.front();
    number.partitionNumber = 1;
  } else {
    auto moved = storage_.renumbered.find(disk_);
    number.deviceNumber = moved != storage_.renumbered.end() ? moved->second : disk_;
    number.partitionNumber = 0;
  }
  return kStorageDeviceNumberSize;
}

inline bool FakeWindowsDevice::close() {
  storage_.note(name_ + " close");
  return true;
}

inline bool FakeWindowsDevice::lockVolume() {
  storage_.note(name_ + " lock");
  return !storage_.lockFails;
}

inline bool FakeWindowsDevice::dismountVolume() {
  storage_.note(name_ + " dismount");
  return true;
}

inline bool FakeWindowsDevice::unlockVolume() {
  storage_.note(name_ + " unlock");
  return true;
}

}  // namespace tarnlift::localdisk::testing
