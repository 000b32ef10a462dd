// Linux drives: whole disks from /sys/block, formatted with mkfs.fat.
#include "app/log.h"
#include "localdisk/child_process.h"
#include "localdisk/linux_disks.h"
#include "localdisk/local_drives.h"

namespace tarnlift::localdisk {
namespace {

class SysBlockEnumerator : public DriveEnumerator {
 public:
  std::vector<DriveCandidate> candidates() override {
    LinuxSystem& system = realLinuxSystem();
    std::vector<DriveCandidate> result;
    uint8_t next = 'C';
    for (const std::string& name : system.disks()) {
      BlockFacts block;
      if (!system.blockByName(name, block)) continue;
      DriveCandidate candidate;
      candidate.label = "/dev/" + name;
      candidate.type = blockDiskType(name, block.removable);
      if (candidate.type == kDriveRemovable || candidate.type == kDriveFixed) {
        candidate.letter = next;
        if (next < 0xFE) ++next;
        candidate.system = diskUse(system, name).holdsSystem();
        candidate.description = diskDescription(block.bytes, block.model);
        candidate.size = diskSizeText(block.bytes);
      }
      result.push_back(candidate);
    }
    return result;
  }
};

class LinuxFormatterProcess : public FormatterProcess {
 public:
  bool createPipes() override { return child_.createPipes(); }
  bool start(const std::string& program, const std::vector<std::string>& arguments) override {
    if (program.empty()) return false;
    std::vector<std::string> argv{program};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return child_.start(argv);
  }
  void writeInput(const std::string& text) override { child_.writeInput(text); }
  std::string takeOutput() override { return child_.readOutput(std::string::npos, 0); }
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
  bool format(const DriveId& drive, const std::string& label, bool fat32, app::Waitable* stop) override {
    LinuxFormatterProcess process;
    // The drive as the installation holds it: the whole disk or image file.
    return runFormatter(process, linuxFormatterCommand(findProgram("mkfs.fat"), drive.path, label, fat32),
                        kFormatTimeoutMs, stop);
  }
  bool formatsTwice() override { return false; }
};

}  // namespace

std::unique_ptr<DriveEnumerator> makePlatformDriveEnumerator() { return std::make_unique<SysBlockEnumerator>(); }
std::unique_ptr<FormatterProcess> makePlatformFormatterProcess() { return std::make_unique<LinuxFormatterProcess>(); }
std::unique_ptr<DriveFormatter> makePlatformFormatter() { return std::make_unique<LinuxFormatter>(); }

}  // namespace tarnlift::localdisk
