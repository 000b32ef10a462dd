// The process's installation servers, one per protocol port, each with its
// transport and its running "Router installer" thread, and the beacon. The
// window and the headless front end both take theirs from here (port 5000),
// creating it on first use.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "install/session.h"
#include "install/transport.h"

namespace tarnlift::install {

class InstallService {
 public:
  // Opens the transport on the served interface at port (5000, or the
  // backup port when it is taken) and starts the receiving thread.
  explicit InstallService(uint16_t port, InstallTransport::Options options = {});
  ~InstallService();
  InstallService(const InstallService&) = delete;
  InstallService& operator=(const InstallService&) = delete;

  InstallServer& server() { return *server_; }
  InstallTransport& transport() { return transport_; }

 private:
  InstallTransport transport_;
  std::unique_ptr<InstallServer> server_;
};

// What the process runs of the installation protocol: one service per
// port, and the beacon. The window and `serve` share the process's one
// (processInstallServices); the free functions below are its short names.
class InstallServices {
 public:
  InstallServices() = default;
  InstallServices(const InstallServices&) = delete;
  InstallServices& operator=(const InstallServices&) = delete;

  // The service for port, created (and started) on first use.
  InstallService& forPort(uint16_t port);
  // Creates or ends the beacon; logs "beacon: " and the value.
  void setBeacon(bool on);
  // Null while the beacon is off.
  InstallBeacon* beacon() const { return beacon_.get(); }

 private:
  std::mutex servicesLock_;  // the window's workers and serve's threads ask at once
  std::map<uint16_t, std::unique_ptr<InstallService>> services_;
  std::unique_ptr<InstallBeacon> beacon_;
};

InstallServices& processInstallServices();

// processInstallServices().forPort(port).
InstallService& installServiceForPort(uint16_t port = kInstallPort);
// The process's beacon switch and its beacon.
void setBeacon(bool on);
InstallBeacon* processBeacon();

}  // namespace tarnlift::install
