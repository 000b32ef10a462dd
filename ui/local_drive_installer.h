// The local-drive installer behind the desk's interface: the drives that
// may be installed and one installation thread per drive.
#pragma once

#include <vector>

#include "install/desk.h"
#include "localdisk/disk_installation.h"

namespace tarnlift::ui {

class LocalDriveInstaller : public DriveInstaller {
 public:
  std::vector<RouterRecord> listDrives() override;
  void start(const RouterRecord& request) override;
  // The newest status of the drive's installation; a failed one shows its
  // error text.
  bool status(const MacAddress& mac, SessionStatus& status) override;
  void cancel(const MacAddress& mac) override;

 private:
  localdisk::LocalDiskInstaller installer_;
};

}  // namespace tarnlift::ui
