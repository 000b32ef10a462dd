#include "ui/local_drive_installer.h"

#include "localdisk/local_drives.h"

namespace tarnlift::ui {

LocalDriveInstaller::LocalDriveInstaller(localdisk::DriveEnumerator* drives, localdisk::DiskServices* services)
    : drives_(drives),
      services_(services != nullptr ? *services : localdisk::platformDiskServices()),
      installer_(&services_) {}

std::vector<install::RouterRecord> LocalDriveInstaller::listDrives() {
  return drives_ != nullptr ? localdisk::listLocalDrives(*drives_) : localdisk::listLocalDrives();
}

bool LocalDriveInstaller::mayErase(const install::RouterRecord& row, std::string& reason) {
  return services_.devices->check(localdisk::driveIdOf(row), reason);
}

void LocalDriveInstaller::start(const install::RouterRecord& request) { installer_.start(request); }

bool LocalDriveInstaller::status(const net::MacAddress& mac, install::SessionStatus& status) {
  localdisk::DiskStatus disk;
  if (!installer_.news(mac, disk)) return false;
  status.status = disk.state;
  status.total = disk.total;
  status.progress = disk.progress;
  status.statusText = disk.state == install::kStatusFailed ? disk.errorText : disk.statusText;
  return true;
}

void LocalDriveInstaller::cancel(const net::MacAddress& mac) { installer_.cancel(mac); }

}  // namespace tarnlift::ui
