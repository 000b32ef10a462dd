#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "localdisk/disk_target.h"
#include "localdisk/linux_disks.h"

namespace tarnlift::localdisk {

bool diskTargetNameValid(const std::string& target, std::string& error) {
  if (!target.empty()) return true;
  error = "the target is an empty name";
  return false;
}

TargetResult resolveDiskTarget(const std::string& target, uint64_t imageMiB, DiskTarget& result, std::string& error) {
  struct stat info {};
  if (lstat(target.c_str(), &info) != 0) {
    if (errno != ENOENT || target.rfind("/dev/", 0) == 0) {
      error = target + " does not exist";
      return TargetResult::Refused;
    }
    // A new image file of the asked size.
    int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) {
      error = "cannot create " + target + ": " + std::strerror(errno);
      return TargetResult::Refused;
    }
    bool sized = ftruncate(fd, static_cast<off_t>(imageMiB * 1024 * 1024)) == 0;
    ::close(fd);
    if (!sized) {
      ::unlink(target.c_str());
      error = "cannot make " + target + " " + std::to_string(imageMiB) + " MiB large";
      return TargetResult::Refused;
    }
    result.createdFile = true;
  }
  // Checked and opened once: what is written is what was checked.
  LinuxTarget checked;
  result.held = holdLinuxTarget(realLinuxSystem(), target, checked, error);
  if (result.held == nullptr) {
    if (result.createdFile) ::unlink(target.c_str());
    return TargetResult::Refused;
  }
  result.isDevice = checked.device;
  if (!result.isDevice) {
    if (!result.createdFile) result.existingBytes = checked.facts.size;
    result.row = makeDriveRow(target, kImageFileLetter, kDriveFixed);
    return TargetResult::Ok;
  }
  // A device keeps the letter, type and description of its row in the
  // drive list.
  for (const install::RouterRecord& row : listLocalDrives()) {
    if (row.label == "/dev/" + checked.disk) {
      result.row = row;
      result.row.label = target;
      return TargetResult::Ok;
    }
  }
  result.row = makeDriveRow(target, kImageFileLetter, kDriveFixed);
  return TargetResult::Ok;
}

bool standardInputIsTerminal() { return ::isatty(STDIN_FILENO) != 0; }

}  // namespace tarnlift::localdisk
