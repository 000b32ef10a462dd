#include "ui/main_workers.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "app/log.h"
#include "install/install_service.h"
#include "install/transport.h"
#include "netboot/netboot_activity.h"
#include "netboot/netboot_server.h"
#include "ui/local_drive_installer.h"

namespace tarnlift::ui {

class SystemMainWorkers::Netboot : public NetbootWorker {
 public:
  explicit Netboot(const std::string& kernelOverride) : thread_(kernelOverride) { thread_.start(); }
  void changeSettings(bool enabled, uint32_t clientAddress) override { thread_.changeSettings(enabled, clientAddress); }
  bool otherServerNotice(uint64_t& seen, std::string& line) override {
    netboot::NetbootActivity activity = netboot::netbootActivity();
    if (activity.otherServerNotices == seen) return false;
    seen = activity.otherServerNotices;
    line = activity.lastOtherServer;
    return true;
  }
  void stop() { thread_.stopServer(); }

 private:
  netboot::NetbootThread thread_;
};

class SystemMainWorkers::Beacon : public BeaconWorker {
 public:
  void setOn(bool on) override { install::setBeacon(on); }
  void send() override {
    if (install::InstallBeacon* beacon = install::processBeacon()) beacon->send();
  }
};

std::unique_ptr<install::DriveInstaller> SystemMainWorkers::defaultDriveInstaller(bool underWine) {
  if (underWine) {
    app::logLine() << "local drives: none under Wine";
    return std::make_unique<install::NoDriveInstaller>();
  }
  return std::make_unique<LocalDriveInstaller>();
}

SystemMainWorkers::SystemMainWorkers(std::unique_ptr<install::DriveInstaller> drives)
    : drives_(std::move(drives)), beacon_(std::make_unique<Beacon>()) {}

SystemMainWorkers::~SystemMainWorkers() = default;

install::RouterInstaller& SystemMainWorkers::startRouterInstaller() {
  if (!routers_)
    routers_ = std::make_unique<install::ServerRouterInstaller>(
        install::installServiceForPort(install::kInstallPort).server());
  return *routers_;
}

install::DriveInstaller& SystemMainWorkers::makeDriveInstaller(bool underCompatibilityLayer) {
  if (!drives_) drives_ = defaultDriveInstaller(underCompatibilityLayer);
  return *drives_;
}

NetbootWorker& SystemMainWorkers::startNetbootServer(const std::string& kernelOverride) {
  if (!netboot_) netboot_ = std::make_unique<Netboot>(kernelOverride);
  return *netboot_;
}

BeaconWorker& SystemMainWorkers::beacon() { return *beacon_; }

const app::Clock& SystemMainWorkers::clock() { return app::SteadyClock::instance(); }

netboot::InterfaceSource& SystemMainWorkers::interfaces() { return netboot::platformInterfaceSource(); }

bool SystemMainWorkers::environment(const std::string& name, std::string& value) {
  const char* text = std::getenv(name.c_str());
  if (text == nullptr) return false;
  value = text;
  return true;
}

std::string SystemMainWorkers::currentDirectory() {
  std::error_code error;
  std::filesystem::path path = std::filesystem::current_path(error);
  return error ? std::string() : path.string();
}

bool SystemMainWorkers::fileExists(const std::string& path) {
  std::error_code error;
  return !path.empty() && std::filesystem::exists(path, error);
}

bool SystemMainWorkers::isDirectory(const std::string& path) {
  std::error_code error;
  return !path.empty() && std::filesystem::is_directory(path, error);
}

void SystemMainWorkers::stopThreads() {
  if (netboot_) netboot_->stop();
  if (routers_) routers_->server().stop();
}

}  // namespace tarnlift::ui
