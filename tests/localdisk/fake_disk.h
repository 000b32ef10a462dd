// Fakes for the local disk installation: a disk with sector 0, volume files
// in memory, a formatter, package sizes and the boot loader's installer.
#pragma once

#include <atomic>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "app/sync.h"
#include "localdisk/disk_access.h"
#include "netboot/boot_images.h"

namespace tarnlift::localdisk::testing {

struct FakeDisk {
  std::vector<uint8_t> bytes = std::vector<uint8_t>(4096);
  std::vector<std::string> journal;  // what was done, in order
  // Failure switches.
  std::set<char> missingVolumes;  // letters with no volume
  std::string refusal;            // check refuses with this reason
  bool volumeOpensOnce = false;   // the second open of the volume fails
  int volumeOpens = 0;
  bool physicalFails = false;
  int changedAt = 0;              // the n-th look (from 1) finds the drive changed
  int looks = 0;
  bool takenDuringFormat = false;
  int deviceNumberAnswer = kStorageDeviceNumberSize;
  int seekFailsAt = -1;  // the n-th seek (from 0) fails
  int seeks = 0;
  int shortRead = -1;    // bytes a read answers (-1: all)
  int shortWrite = -1;   // bytes a write answers (-1: all)
  uint64_t position = 0;
};

class FakeDevice : public Device {
 public:
  FakeDevice(FakeDisk& disk, std::string name) : disk_(disk), name_(std::move(name)) {}
  int read(uint8_t* buffer, uint32_t size) override {
    disk_.journal.push_back(name_ + " read " + std::to_string(size));
    uint32_t count = disk_.shortRead >= 0 ? static_cast<uint32_t>(disk_.shortRead) : size;
    for (uint32_t i = 0; i < count; ++i) buffer[i] = disk_.bytes[disk_.position + i];
    return static_cast<int>(count);
  }
  int write(const uint8_t* buffer, uint32_t size) override {
    disk_.journal.push_back(name_ + " write " + std::to_string(size));
    uint32_t count = disk_.shortWrite >= 0 ? static_cast<uint32_t>(disk_.shortWrite) : size;
    for (uint32_t i = 0; i < count; ++i) disk_.bytes[disk_.position + i] = buffer[i];
    return static_cast<int>(count);
  }
  bool seek(uint64_t offset) override {
    disk_.journal.push_back(name_ + " seek " + std::to_string(offset));
    if (disk_.seeks++ == disk_.seekFailsAt) return false;
    disk_.position = offset;
    return true;
  }
  int deviceNumber(StorageDeviceNumber& number) override {
    disk_.journal.push_back(name_ + " device number");
    number.deviceType = 7;
    number.deviceNumber = 3;
    number.partitionNumber = 1;
    return disk_.deviceNumberAnswer;
  }
  bool close() override {
    disk_.journal.push_back(name_ + " close");
    return true;
  }

 private:
  FakeDisk& disk_;
  std::string name_;
};

class FakeHeldDrive : public HeldDrive {
 public:
  FakeHeldDrive(FakeDisk& disk, DriveId drive) : disk_(disk), drive_(std::move(drive)) {}
  ~FakeHeldDrive() override { disk_.journal.push_back("let go"); }
  std::unique_ptr<Device> openVolume() override {
    disk_.journal.push_back(std::string("open volume ") + drive_.letter);
    if (disk_.volumeOpensOnce && disk_.volumeOpens > 0) return nullptr;
    ++disk_.volumeOpens;
    return std::make_unique<FakeDevice>(disk_, "volume");
  }
  std::unique_ptr<Device> openPhysical(uint32_t deviceNumber, std::string& reason) override {
    disk_.journal.push_back("open physical " + std::to_string(deviceNumber));
    if (disk_.physicalFails) {
      reason = "the fake disk cannot be opened";
      return nullptr;
    }
    return std::make_unique<FakeDevice>(disk_, "physical");
  }
  bool unchanged(std::string& reason) override {
    if (++disk_.looks != disk_.changedAt) return true;
    disk_.journal.push_back("changed");
    reason = "the fake drive changed";
    return false;
  }
  void lendToFormatter() override { disk_.journal.push_back("lend"); }
  bool takeBack(std::string& reason) override {
    disk_.journal.push_back("take back");
    if (!disk_.takenDuringFormat) return true;
    reason = "the fake drive was taken";
    return false;
  }
  DriveId reach() const override { return drive_; }
  std::string bootLoaderTarget() const override { return std::string(1, drive_.letter) + ":"; }

 private:
  FakeDisk& disk_;
  DriveId drive_;
};

class FakeDiskAccess : public DiskAccess {
 public:
  explicit FakeDiskAccess(FakeDisk& disk) : disk_(disk) {}
  bool check(const DriveId& drive, std::string& reason) override {
    disk_.journal.push_back(std::string("check ") + drive.letter);
    reason = disk_.refusal;
    return disk_.refusal.empty();
  }
  std::unique_ptr<HeldDrive> hold(const DriveId& drive, std::string& reason) override {
    disk_.journal.push_back(std::string("hold ") + drive.letter);
    if (disk_.missingVolumes.count(drive.letter) != 0) {
      reason = std::string("drive ") + drive.letter + ": cannot be opened";
      return nullptr;
    }
    if (!disk_.refusal.empty()) {
      reason = disk_.refusal;
      return nullptr;
    }
    return std::make_unique<FakeHeldDrive>(disk_, drive);
  }

 private:
  FakeDisk& disk_;
};

struct FakeVolume {
  std::map<std::string, std::string> files;
  std::set<std::string> failCreate;  // names whose creation fails
  std::set<std::string> failCopy;    // names whose copy fails
  std::set<std::string> shortWrite;  // names whose writes come up short
  std::vector<std::string> journal;
};

class FakeOutputFile : public OutputFile {
 public:
  FakeOutputFile(FakeVolume& volume, std::string name) : volume_(volume), name_(std::move(name)) {
    volume_.files[name_];
  }
  bool write(const uint8_t* data, size_t size) override {
    if (volume_.shortWrite.count(name_) != 0) return false;
    volume_.files[name_].append(reinterpret_cast<const char*>(data), size);
    return true;
  }
  bool close() override {
    volume_.journal.push_back("closed " + name_);
    return true;
  }

 private:
  FakeVolume& volume_;
  std::string name_;
};

inline std::string readHostFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class FakeVolumeFiles : public VolumeFiles {
 public:
  explicit FakeVolumeFiles(FakeVolume& volume) : volume_(volume) {}
  std::unique_ptr<OutputFile> createNew(const DriveId&, const std::string& name) override {
    volume_.journal.push_back("create " + name);
    if (volume_.files.count(name) != 0 || volume_.failCreate.count(name) != 0) return nullptr;
    return std::make_unique<FakeOutputFile>(volume_, name);
  }
  bool copyInto(const DriveId&, const std::string& source, const std::string& name) override {
    volume_.journal.push_back("copy " + name);
    if (volume_.failCopy.count(name) != 0) return false;
    std::ifstream in(source, std::ios::binary);
    if (!in) return false;
    volume_.files[name] = readHostFile(source);
    return true;
  }

 private:
  FakeVolume& volume_;
};

class FakeFormatter : public DriveFormatter {
 public:
  explicit FakeFormatter(FakeVolume& volume) : volume_(volume) {}
  bool format(const DriveId& drive, const std::string& label, bool fat32, app::Waitable* stop) override {
    calls.push_back(std::string(1, drive.letter) + " " + label + (fat32 ? " FAT32" : " FAT"));
    if (runsMs > 0) {
      // Like a formatter at work: only a stop ends it early.
      started.set();
      if (stop != nullptr && stop->waitFor(runsMs)) {
        stopped = true;
        return false;
      }
    }
    if (failAt == static_cast<int>(calls.size())) return false;
    if (empties) volume_.files.clear();
    return true;
  }
  bool formatsTwice() override { return twice; }
  std::vector<std::string> calls;
  int failAt = 0;  // the n-th call (from 1) fails
  bool twice = false;
  bool empties = true;
  uint32_t runsMs = 0;  // how long a format takes
  app::Event started{true};
  std::atomic<bool> stopped{false};

 private:
  FakeVolume& volume_;
};

// Sizes from the host's files, with chosen failures.
class FakeSourceFiles : public SourceFiles {
 public:
  int size(const std::string& path, uint64_t& size) override {
    auto it = codes.find(path);
    if (it != codes.end()) return it->second;
    return makeSourceFiles()->size(path, size);
  }
  std::map<std::string, int> codes;
};

// The boot loader's installer: reports running for a few polls.
struct FakeRunnerLog {
  std::vector<std::string> arguments;
  std::atomic<int> polls{0};
  int runningPolls = 2;  // -1: runs until killed
  bool starts = true;
  std::atomic<int> kills{0};
  std::atomic<int> cleanUps{0};
};

class FakeRunner : public app::ProgramRunner {
 public:
  explicit FakeRunner(FakeRunnerLog& log) : app::ProgramRunner(134, "syslinux.exe"), log_(log) {}
  bool run(const std::vector<std::string>& arguments) override {
    std::string words;
    for (const std::string& word : arguments) words += (words.empty() ? "" : " ") + word;
    log_.arguments.push_back(words);
    return log_.starts;
  }
  bool isRunning() override {
    if (killed_) return false;
    int poll = log_.polls++;
    return log_.runningPolls < 0 || poll < log_.runningPolls;
  }
  void kill() override {
    killed_ = true;
    ++log_.kills;
  }
  void cleanUp() override {
    kill();
    ++log_.cleanUps;
  }

 private:
  FakeRunnerLog& log_;
  bool killed_ = false;
};

class FakeStore : public netboot::BootImageStore {
 public:
  void add(int number, const std::string& content) {
    records[number] =
        netboot::makeBootImageRecord(reinterpret_cast<const uint8_t*>(content.data()), content.size());
  }
  bool findRecord(int number, const uint8_t*& record, size_t& storedSize) override {
    auto it = records.find(number);
    if (it == records.end()) return false;
    record = it->second.data();
    storedSize = it->second.size();
    return true;
  }
  std::map<int, std::vector<uint8_t>> records;
};

}  // namespace tarnlift::localdisk::testing
