// The local-drive installer behind the desk's interface: the drives that
// may be installed and one installation thread per drive.
#pragma once

#include <vector>

#include "install/desk.h"
#include "localdisk/disk_installation.h"

namespace tarnlift::ui {

class LocalDriveInstaller : public install::DriveInstaller {
 public:
  // The platform's drives and services, or (tests) ones over a made-up
  // machine; both kept by the caller for the installer's life.
  explicit LocalDriveInstaller(localdisk::DriveEnumerator* drives = nullptr,
                               localdisk::DiskServices* services = nullptr);
  std::vector<install::RouterRecord> listDrives() override;
  bool mayErase(const install::RouterRecord& row, std::string& reason) override;
  void start(const install::RouterRecord& request) override;
  // The newest status of the drive's installation; a failed one shows its
  // error text.
  bool status(const net::MacAddress& mac, install::SessionStatus& status) override;
  // Returns once nothing of the installation runs on the drive any more.
  void cancel(const net::MacAddress& mac) override;

 private:
  localdisk::DriveEnumerator* drives_;
  localdisk::DiskServices& services_;
  localdisk::LocalDiskInstaller installer_;
};

}  // namespace tarnlift::ui
