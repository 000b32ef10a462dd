// The real workers of the main window: the "Router installer" of port 5000,
// the local-drive installer holder, the "PXE Booter" thread and the beacon,
// created when the presenter asks for them, in its order.
#pragma once

#include <memory>
#include <string>

#include "ui/main_presenter.h"

namespace tarnlift::netboot {
class NetbootThread;
}

namespace tarnlift::ui {

class SystemMainWorkers : public MainWorkers {
 public:
  // drives: the local-drive installer to hand out (nullptr: the default one
  // below, made when the presenter asks for it; tests give a fake).
  explicit SystemMainWorkers(std::unique_ptr<install::DriveInstaller> drives = nullptr);

  // The local disk installer of this machine's drives; under Wine none at
  // all, since Wine's drive letters are folders of the host's file system,
  // and raw access through them could reach the host's own disks.
  static std::unique_ptr<install::DriveInstaller> defaultDriveInstaller(bool underWine);
  ~SystemMainWorkers() override;

  install::RouterInstaller& startRouterInstaller() override;
  install::DriveInstaller& makeDriveInstaller(bool underCompatibilityLayer) override;
  NetbootWorker& startNetbootServer(const std::string& kernelOverride) override;
  BeaconWorker& beacon() override;
  const app::Clock& clock() override;
  netboot::InterfaceSource& interfaces() override;
  bool environment(const std::string& name, std::string& value) override;
  std::string currentDirectory() override;
  bool fileExists(const std::string& path) override;
  bool isDirectory(const std::string& path) override;
  void stopThreads() override;

 private:
  class Netboot;
  class Beacon;
  std::unique_ptr<install::ServerRouterInstaller> routers_;
  std::unique_ptr<install::DriveInstaller> drives_;
  std::unique_ptr<Netboot> netboot_;
  std::unique_ptr<Beacon> beacon_;
};

}  // namespace tarnlift::ui
