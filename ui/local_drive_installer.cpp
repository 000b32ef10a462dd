#include "ui/local_drive_installer.h"

#include "localdisk/local_drives.h"

namespace tarnlift::ui {

std::vector<RouterRecord> LocalDriveInstaller::listDrives() { return localdisk::listLocalDrives(); }

void LocalDriveInstaller::start(const RouterRecord& request) { installer_.start(request); }

bool LocalDriveInstaller::status(const MacAddress& mac, SessionStatus& status) {
  localdisk::DiskStatus disk;
  if (!installer_.news(mac, disk)) return false;
  status.status = disk.state;
  status.total = disk.total;
  status.progress = disk.progress;
  status.statusText = disk.state == kStatusFailed ? disk.errorText : disk.statusText;
  return true;
}

void LocalDriveInstaller::cancel(const MacAddress& mac) { installer_.cancel(mac); }

}  // namespace tarnlift::ui
