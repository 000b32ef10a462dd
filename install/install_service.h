// The process's installation servers, one per protocol port, each with its
// transport and its running "Router installer" thread. The window and the
// headless front end both take theirs from here (port 5000), creating it on
// first use.
#pragma once

#include <cstdint>
#include <memory>

#include "install/session.h"
#include "install/transport.h"

namespace tarnlift {

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

// The process-wide service for port, created (and started) on first use.
InstallService& installServiceForPort(uint16_t port = kInstallPort);

}  // namespace tarnlift
