#include <windows.h>
#include <io.h>

#include <cctype>
#include <cstdio>

#include "localdisk/disk_target.h"
#include "localdisk/local_drives.h"

namespace tarnlift::localdisk {

bool diskTargetNameValid(const std::string& target, std::string& error) {
  // "E", "E:" or "E:\": a drive letter from the drive list.
  bool letterOnly = target.size() == 1 || (target.size() == 2 && target[1] == ':') ||
                    (target.size() == 3 && target[1] == ':' && (target[2] == '\\' || target[2] == '/'));
  if (!letterOnly || !std::isalpha(static_cast<unsigned char>(target[0]))) {
    error = "the target is a drive letter from 'tarnlift drives' (image files are made on Linux only)";
    return false;
  }
  return true;
}

TargetResult resolveDiskTarget(const std::string& target, uint64_t, DiskTarget& result, std::string& error) {
  if (!diskTargetNameValid(target, error)) return TargetResult::BadUsage;
  char letter = static_cast<char>(std::toupper(static_cast<unsigned char>(target[0])));
  for (const install::RouterRecord& row : listLocalDrives()) {
    if (std::toupper(row.mac[5]) != letter) continue;
    // Checked by what is on its disk, and held from now on.
    DiskServices& services = platformDiskServices();
    if (!services.devices->check(driveIdOf(row), error)) return TargetResult::Refused;
    result.held = services.devices->hold(driveIdOf(row), error);
    if (result.held == nullptr) return TargetResult::Refused;
    result.row = row;
    result.isDevice = true;
    return TargetResult::Ok;
  }
  error = std::string("drive ") + letter + ": is not a removable or fixed drive other than the system's";
  return TargetResult::Refused;
}

bool standardInputIsTerminal() { return _isatty(_fileno(stdin)) != 0; }

}  // namespace tarnlift::localdisk
