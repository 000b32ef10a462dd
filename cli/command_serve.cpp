// `tarnlift serve`: the "Router installer" without a window. Runs the
// installation server on the interface that reaches the client address and
// installs routers as they announce themselves, with the Install command's
// rules; prints one final line per finished router on standard output. With
// --beacon it also asks the routers on the segment to boot over the network,
// once a second, as the window does when "Force Inst" is on.
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "app/clock.h"
#include "app/log.h"
#include "app/registry.h"
#include "app/sync.h"
#include "cli/choice_options.h"
#include "cli/command.h"
#include "cli/server_guard.h"
#include "install/headless.h"
#include "install/install_service.h"
#include "install/session.h"
#include "install/transport.h"
#include "netboot/interfaces.h"
#include "netboot/netboot_service.h"

namespace tarnlift::cli {
namespace {

volatile std::sig_atomic_t gStopRequested = 0;
void requestStop(int) { gStopRequested = 1; }

const char* kServeUsage =
    "--client-address A.B.C.D [--packages DIR] [--select FILE]... [--set NAME] [--keep-config] "
    "[--address A.B.C.D/BITS] [--gateway A.B.C.D] [--baud N] [--default-config] [--remove-branding] "
    "[--script FILE] [--mode-script FILE] [--after reboot|shutdown|none] [--mac MAC]... [--count N] [--beacon] "
    "[--netboot [--boot-images DIR] [--kernel FILE]]";

bool parseCount(const std::string& text, uint32_t& value) {
  uint64_t n = 0;
  if (!parseUnsigned(text, n, 0xFFFFFFFFu)) return false;
  value = static_cast<uint32_t>(n);
  return true;
}

int runServe(const std::vector<std::string>& commandArguments) {
  // The network boot options are the boot services' own; the rest are ours.
  std::vector<std::string> arguments = commandArguments;
  netboot::NetbootServeOptions netbootOptions;
  std::string netbootError;
  if (!netboot::extractNetbootOptions(arguments, netbootOptions, netbootError)) return usageError(netbootError);
  HeadlessOptions options;
  std::string clientText;
  uint32_t count = 0;
  bool havePackages = false;
  bool beacon = false;
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& option = arguments[i];
    auto value = [&](std::string& out) {
      if (i + 1 >= arguments.size()) return false;
      out = arguments[++i];
      return true;
    };
    std::string text;
    if (std::optional<int> code = takeChoiceOption(arguments, i, options, havePackages)) {
      if (*code != kExitOk) return *code;
    } else if (option == "--client-address") {
      if (!value(clientText)) return usageError("--client-address needs an IPv4 address");
    } else if (option == "--keep-config") {
      options.install.keepConfig = true;
    } else if (option == "--address") {
      if (!value(text)) return usageError("--address needs A.B.C.D/BITS");
      size_t slash = text.find('/');
      options.install.addressText = text.substr(0, slash);
      if (slash != std::string::npos) options.install.netmaskBitsText = text.substr(slash + 1);
      if (addressFromText(options.install.addressText) == 0) return usageError("bad address '" + text + "'");
    } else if (option == "--gateway") {
      if (!value(options.install.gatewayText)) return usageError("--gateway needs an IPv4 address");
      if (addressFromText(options.install.gatewayText) == 0) return usageError("bad gateway address");
    } else if (option == "--default-config") {
      options.install.defaultConfig = true;
    } else if (option == "--remove-branding") {
      options.install.keepBranding = false;
    } else if (option == "--after") {
      if (!value(text)) return usageError("--after needs reboot, shutdown or none");
      if (text == "reboot") {
        options.after = AfterInstall::Reboot;
      } else if (text == "shutdown") {
        options.after = AfterInstall::Shutdown;
      } else if (text == "none") {
        options.after = AfterInstall::None;
      } else {
        return usageError("--after needs reboot, shutdown or none");
      }
    } else if (option == "--mac") {
      MacAddress mac{};
      if (!value(text) || !parseMac(text, mac)) return usageError("--mac needs a MAC such as 4C:5E:0C:01:02:03");
      options.macs.insert(mac);
    } else if (option == "--beacon") {
      beacon = true;
    } else if (option == "--count") {
      if (!value(text) || !parseCount(text, count) || count == 0) return usageError("--count needs a positive number");
    } else {
      return usageError("serve: unexpected argument '" + option + "' (usage: serve " + kServeUsage + ")");
    }
  }
  uint32_t client = addressFromText(clientText);
  if (client == 0) return usageError("serve needs --client-address A.B.C.D");
  if (int code = checkChoiceOptions(options); code != kExitOk) return code;
  if (!acquireServerGuard()) return kExitOk;

  Registry settings;
  settings.openRoot(kSettingsKeyPath);
  settings.writeInt("PXE Client Address", client);
  if (havePackages) {
    settings.writeString("Package Path", options.packageDir);
  } else {
    options.packageDir = settings.readString("Package Path", ".");
  }

  netboot::findInterface(client);
  if (netboot::serverAddress() == 0) {
    std::cerr << "tarnlift: no network interface reaches " << clientText << std::endl;
    return kExitUsage;
  }

  // Network booting runs beside the installer, on the same interface.
  netboot::NetbootService netbootService;
  if (netbootOptions.netboot && !netbootService.start(client, netbootOptions, netbootError)) {
    std::cerr << "tarnlift: " << netbootError << std::endl;
    return kExitFailed;
  }

  packages::PackageSets sets;
  sets.loadSets(settings);
  RememberedChoices remembered;
  remembered.load(settings);
  options.liveProgress = standardOutputIsTerminal();
  if (beacon) {
    setBeacon(true);
    options.sendBeacon = [] {
      if (InstallBeacon* b = processBeacon()) b->send();
    };
  }

  // The same "Router installer" the window takes, on port 5000.
  InstallService service(kInstallPort);
  InstallServer& server = service.server();
  logLine() << "serve: installing on " << netboot::formatIpv4(netboot::serverAddress()) << " port "
            << service.transport().port() << " as " << macText(service.transport().localMac());

  std::signal(SIGINT, requestStop);
  std::signal(SIGTERM, requestStop);
  HeadlessInstaller installer(server, SteadyClock::instance(), options, sets, remembered, std::cout, std::cerr);
  while (gStopRequested == 0) {
    installer.tick();
    if (count != 0 && installer.finished() >= count) break;
    sleepMilliseconds(250);
  }
  server.destroy();
  service.transport().close();
  if (beacon) setBeacon(false);
  netbootService.stop();
  remembered.save(settings);
  sets.saveSets(settings);
  logLine() << "serve: " << installer.succeeded() << " installed, " << installer.failed() << " failed";
  return installer.failed() == 0 ? kExitOk : kExitFailed;
}

const CliCommandRegistrar serveCommand({"serve", kServeUsage,
                                        "Install routers as they announce themselves, without a window.", &runServe});

}  // namespace
}  // namespace tarnlift::cli
