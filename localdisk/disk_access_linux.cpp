// Linux device access and volume files. A drive is a whole disk or an image
// file, resolved, opened once and held for the whole installation
// (linux_disks_linux.cpp); the tools get the held descriptor as
// /proc/PID/fd/N, so that a name changed meanwhile cannot send them
// elsewhere. The new FAT volume is written through mtools, which works on an
// unmounted volume and, for image files, without root.
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>

#include "app/log.h"
#include "localdisk/child_process.h"
#include "localdisk/disk_access.h"
#include "localdisk/linux_disks.h"

namespace tarnlift::localdisk {
namespace {

constexpr uint32_t kToolTimeoutMs = 600000;
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
    if (!line.empty()) app::logLine() << line;
  }
}

bool mtools(const std::vector<std::string>& arguments, bool logFailure = true) {
  std::string program = findProgram(arguments[0]);
  if (program.empty()) {
    app::logLine() << "cannot find " << arguments[0];
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
}  // namespace tarnlift::localdisk
