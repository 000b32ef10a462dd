// `tarnlift netboot`: the network boot server alone, without a window and
// without installing anything: BOOTP/PXE and TFTP on the interface that
// reaches the client address, until interrupted.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "app/log.h"
#include "app/service_manager.h"
#include "app/sync.h"
#include "cli/cli_options.h"
#include "cli/command.h"
#include "cli/netboot_options.h"
#include "doctor/privileges.h"
#include "cli/server_guard.h"
#include "cli/stop_signals.h"
#include "netboot/interfaces.h"
#include "netboot/netboot_service.h"

namespace tarnlift::cli {
namespace {


struct NetbootArguments {
  netboot::NetbootServeOptions options;
  std::string clientText;
  std::string interfaceName;
};

int runNetboot(NetbootArguments& arguments) {
  netboot::NetbootServeOptions& options = arguments.options;
  options.netboot = true;
  const std::string& clientText = arguments.clientText;
  std::string error;
  installStopSignals();
  uint32_t client = netboot::parseIpv4(clientText);
  if (clientText.empty() || client == 0xFFFFFFFFu || client == 0) {
    return usageError("netboot needs --client-address A.B.C.D");
  }
  if (std::string missing = doctor::missingServerPrivileges(true); !missing.empty()) return failure(missing);
  if (!arguments.interfaceName.empty()) netboot::setOnlyInterface(arguments.interfaceName);
  if (!acquireServerGuard(arguments.interfaceName)) return kExitFailed;

  netboot::NetbootService service;
  if (!service.start(client, options, error)) {
    return failure(error);
  }
  app::notifyServiceManager("READY=1");
  while (!stopRequested()) {
    if (takeReloadRequest()) app::logLine() << "netboot: hang-up: still serving";
    app::sleepMilliseconds(100);
  }
  app::notifyServiceManager("STOPPING=1");
  service.stop();
  app::logLine() << "netboot: stopped";
  return kExitOk;
}

CommandRun defineNetboot(CLI::App& app) {
  auto arguments = std::make_shared<NetbootArguments>();
  addValue(app, "--client-address", arguments->clientText, "A.B.C.D",
           "The address handed to booting routers; the interface that reaches it is served (required).");
  addNetbootOptions(app, arguments->options, false);
  addOptionsFileOption(app);
  addValue(app, "--interface", arguments->interfaceName, "NAME",
           "Serve only this network interface (such as eth1), and let one server run on each interface "
           "(default: the first interface that reaches the client address; one server per network).");
  return [arguments] { return runNetboot(*arguments); };
}

const CliCommandRegistrar netbootCommand(
    {"netboot", "Serve network booting (BOOTP/PXE and TFTP) alone until interrupted.", &defineNetboot});

}  // namespace
}  // namespace tarnlift::cli
