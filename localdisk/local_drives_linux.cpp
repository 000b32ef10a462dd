// Linux drives: whole disks from /sys/block, formatted with mkfs.fat.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>

#include "app/log.h"
#include "localdisk/child_process.h"
#include "localdisk/linux_disks.h"
#include "localdisk/local_drives.h"

namespace tarnlift::localdisk {
namespace {

class SysBlockEnumerator : public DriveEnumerator {
 public:
  std::vector<DriveCandidate> candidates() override {
    std::vector<std::string> names;
    if (DIR* dir = opendir("/sys/block")) {
      while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') names.push_back(entry->d_name);
      }
      closedir(dir);
    }
    std::sort(names.begin(), names.end());
    std::vector<DriveCandidate> result;
    uint8_t next = 'C';
    for (const std::string& name : names) {
      DriveCandidate candidate;
      candidate.label = "/dev/" + name;
      candidate.type = blockDiskType(name);
      if (candidate.type == kDriveRemovable || candidate.type == kDriveFixed) {
        candidate.letter = next;
        if (next < 0xFE) ++next;
        candidate.system = diskHoldsSystem(name);
      }
      result.push_back(candidate);
    }
    return result;
  }
};

class LinuxFormatterProcess : public FormatterProcess {
 public:
  bool createPipes() override { return child_.createPipes(); }
  bool start(const std::string& program, const std::string& commandLine) override {
    if (program.empty()) return false;
    std::vector<std::string> argv;
    size_t at = 0;
    while (at < commandLine.size()) {
      size_t blank = commandLine.find(' ', at);
      if (blank == std::string::npos) blank = commandLine.size();
      if (blank > at) argv.push_back(commandLine.substr(at, blank - at));
      at = blank + 1;
    }
    if (!argv.empty()) argv[0] = program;
    return child_.start(argv);
  }
  void writeInput(const std::string& text) override { child_.writeInput(text); }
  std::string readOutput(size_t limit) override { return child_.readOutput(limit, kFormatTimeoutMs); }
  Wait waitFor(uint32_t milliseconds) override {
    switch (child_.waitFor(milliseconds)) {
      case ChildProcess::Wait::Ended:
        return Wait::Ended;
      case ChildProcess::Wait::TimedOut:
        return Wait::TimedOut;
      default:
        return Wait::Failed;
    }
  }
  bool terminate() override { return child_.terminate(); }
  void close() override { child_.close(); }

 private:
  ChildProcess child_;
};

class LinuxFormatter : public DriveFormatter {
 public:
  bool format(const DriveId& drive, const std::string& label, bool fat32) override {
    LinuxFormatterProcess process;
    // The whole disk is formatted: a partition named by the user stands for
    // the disk that holds it, as its sector 0 was cleared.
    std::string target = wholeDiskPath(drive.path);
    if (target.empty()) target = drive.path;
    return runFormatter(process, linuxFormatterCommand(findProgram("mkfs.fat"), target, label, fat32));
  }
  bool formatsTwice() override { return false; }
};

}  // namespace

std::unique_ptr<DriveEnumerator> makePlatformDriveEnumerator() { return std::make_unique<SysBlockEnumerator>(); }
std::unique_ptr<FormatterProcess> makePlatformFormatterProcess() { return std::make_unique<LinuxFormatterProcess>(); }
std::unique_ptr<DriveFormatter> makePlatformFormatter() { return std::make_unique<LinuxFormatter>(); }

uint32_t blockDiskType(const std::string& name) {
  auto startsWith = [&](const char* prefix) { return name.rfind(prefix, 0) == 0; };
  if (startsWith("sr")) return kDriveCdRom;
  if (startsWith("ram") || startsWith("zram")) return kDriveRamDisk;
  if (startsWith("nbd")) return kDriveRemote;
  if (startsWith("loop") || startsWith("dm-") || startsWith("md") || startsWith("fd")) return kDriveUnknown;
  return firstLineOf("/sys/block/" + name + "/removable") == "1" ? kDriveRemovable : kDriveFixed;
}

}  // namespace tarnlift::localdisk
