#include "install/install_service.h"

#include <map>
#include <mutex>

#include "app/clock.h"
#include "netboot/interfaces.h"

namespace tarnlift {

InstallService::InstallService(uint16_t port, InstallTransport::Options options) : transport_(std::move(options)) {
  // The datagrams carry the MAC of the interface they leave from; opening
  // the transport chooses that interface (and its MAC) again.
  transport_.init(netboot::servedInterface().mac, std::nullopt, port);
  server_ = std::make_unique<InstallServer>(transport_, SteadyClock::instance());
  server_->start();
}

InstallService::~InstallService() {
  server_.reset();
  transport_.close();
}

InstallService& installServiceForPort(uint16_t port) {
  static std::mutex lock;
  static std::map<uint16_t, std::unique_ptr<InstallService>> services;
  std::lock_guard<std::mutex> hold(lock);
  std::unique_ptr<InstallService>& slot = services[port];
  if (!slot) slot = std::make_unique<InstallService>(port);
  return *slot;
}

}  // namespace tarnlift
