#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "localdisk/disk_access.h"
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
  if (stat(target.c_str(), &info) != 0) {
    if (errno != ENOENT || target.rfind("/dev/", 0) == 0) {
      error = target + " does not exist";
      return TargetResult::Refused;
    }
    // A new image file of the asked size.
    int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
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
    result.isDevice = false;
    result.row = makeDriveRow(target, kImageFileLetter, kDriveFixed);
    return TargetResult::Ok;
  }
  DriveId drive;
  drive.path = target;
  if (!driveUsable(drive, error)) return TargetResult::Refused;
  result.isDevice = !S_ISREG(info.st_mode);
  if (!result.isDevice) {
    result.row = makeDriveRow(target, kImageFileLetter, kDriveFixed);
    return TargetResult::Ok;
  }
  // A device keeps the letter and type of its row in the drive list.
  std::string disk = wholeDiskPath(target);
  for (const RouterRecord& row : listLocalDrives()) {
    if (row.label == disk) {
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
