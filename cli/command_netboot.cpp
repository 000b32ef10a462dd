// `tarnlift netboot`: the network boot server alone, without a window and
// without installing anything: BOOTP/PXE and TFTP on the interface that
// reaches the client address, until interrupted.
#include <csignal>
#include <iostream>
#include <string>
#include <vector>

#include "app/log.h"
#include "app/sync.h"
#include "cli/command.h"
#include "cli/server_guard.h"
#include "netboot/interfaces.h"
#include "netboot/netboot_service.h"

namespace tarnlift::cli {
namespace {

volatile std::sig_atomic_t gStopRequested = 0;
void requestStop(int) { gStopRequested = 1; }

int runNetboot(const std::vector<std::string>& arguments) {
  std::vector<std::string> rest = arguments;
  netboot::NetbootServeOptions options;
  std::string error;
  rest.push_back("--netboot");
  if (!netboot::extractNetbootOptions(rest, options, error)) return usageError(error);
  std::string clientText;
  for (size_t i = 0; i < rest.size(); ++i) {
    if (rest[i] == "--client-address" && i + 1 < rest.size()) {
      clientText = rest[++i];
    } else {
      return usageError("netboot: unexpected argument '" + rest[i] + "'");
    }
  }
  uint32_t client = netboot::parseIpv4(clientText);
  if (clientText.empty() || client == 0xFFFFFFFFu || client == 0) {
    return usageError("netboot needs --client-address A.B.C.D");
  }
  if (!acquireServerGuard()) return kExitOk;

  netboot::NetbootService service;
  if (!service.start(client, options, error)) {
    std::cerr << "tarnlift: " << error << std::endl;
    return kExitFailed;
  }
  std::signal(SIGINT, requestStop);
  std::signal(SIGTERM, requestStop);
  while (gStopRequested == 0) sleepMilliseconds(100);
  service.stop();
  logLine() << "netboot: stopped";
  return kExitOk;
}

const CliCommandRegistrar netbootCommand({"netboot", "--client-address A.B.C.D [--boot-images DIR] [--kernel FILE]",
                                          "Serve network booting (BOOTP/PXE and TFTP) alone until interrupted.",
                                          &runNetboot});

}  // namespace
}  // namespace tarnlift::cli
