#include "install/install_service.h"

#include "app/clock.h"
#include "app/log.h"
#include "netboot/interfaces.h"

namespace tarnlift::install {

InstallService::InstallService(uint16_t port, InstallTransport::Options options) : transport_(std::move(options)) {
  // The datagrams carry the MAC of the interface they leave from; opening
  // the transport chooses that interface (and its MAC) again.
  transport_.init(netboot::servedInterface().mac, std::nullopt, port);
  server_ = std::make_unique<InstallServer>(transport_, app::SteadyClock::instance());
  server_->start();
}

InstallService::~InstallService() {
  server_.reset();
  transport_.close();
}

InstallService& InstallServices::forPort(uint16_t port) {
  std::lock_guard<std::mutex> hold(servicesLock_);
  std::unique_ptr<InstallService>& slot = services_[port];
  if (!slot) slot = std::make_unique<InstallService>(port);
  return *slot;
}

void InstallServices::setBeacon(bool on) {
  app::logLine() << "beacon: " << (on ? 1 : 0);
  if (on) {
    if (!beacon_) {
      beacon_ = std::make_unique<InstallBeacon>();
      beacon_->create();
    }
  } else {
    beacon_.reset();
  }
}

InstallServices& processInstallServices() {
  static InstallServices services;
  return services;
}

InstallService& installServiceForPort(uint16_t port) { return processInstallServices().forPort(port); }
void setBeacon(bool on) { processInstallServices().setBeacon(on); }
InstallBeacon* processBeacon() { return processInstallServices().beacon(); }

}  // namespace tarnlift::install
