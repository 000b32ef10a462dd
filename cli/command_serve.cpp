// `tarnlift serve`: the "Router installer" without a window. Runs the
// installation server on the interface that reaches the client address and
// installs routers as they announce themselves, with the Install command's
// rules; prints one final line per finished router on standard output. With
// --beacon it also asks the routers on the segment to boot over the network,
// once a second, as the window does when "Force Inst" is on.
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
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
#include "web/web_console.h"

namespace tarnlift::cli {
namespace {

volatile std::sig_atomic_t gStopRequested = 0;
void requestStop(int) { gStopRequested = 1; }

const char* kServeUsage =
    "--client-address A.B.C.D [--packages DIR] [--select FILE]... [--set NAME] [--keep-config] "
    "[--address A.B.C.D/BITS] [--gateway A.B.C.D] [--baud N] [--default-config] [--remove-branding] "
    "[--script FILE] [--mode-script FILE] [--after reboot|shutdown|none] [--mac MAC]... [--count N] [--beacon] "
    "[--netboot [--boot-images DIR] [--kernel FILE]] [--web [ADDRESS:]PORT [--web-token FILE] [--hold]]";

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
  std::string webText;
  std::string webTokenFile;
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
    } else if (option == "--web") {
      if (!value(webText)) return usageError("--web needs [ADDRESS:]PORT, such as 8080 or 0.0.0.0:8080");
    } else if (option == "--web-token") {
      if (!value(webTokenFile)) return usageError("--web-token needs a file that holds the token");
    } else if (option == "--hold") {
      options.hold = true;
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
  uint32_t webAddress = 0;
  uint16_t webPort = 0;
  web::WebAccess access;
  if (!webText.empty()) {
    std::string error;
    if (!web::parseListenAddress(webText, webAddress, webPort, error)) return usageError(error);
    if (!webTokenFile.empty() && !web::readTokenFile(webTokenFile, access.token, error)) return usageError(error);
    if (!web::isLoopbackAddress(webAddress) && access.token.empty()) {
      return usageError("--web " + webText +
                        " would let other machines drive the installs without a password: add --web-token FILE "
                        "(a file whose first line is the token), or listen on 127.0.0.1");
    }
  } else if (options.hold || !webTokenFile.empty()) {
    return usageError(std::string(options.hold ? "--hold" : "--web-token") + " needs --web [ADDRESS:]PORT");
  }
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
  std::unique_ptr<web::WebConsole> console;
  web::NetbootSnapshot netbootPanel;
  if (!webText.empty()) {
    options.afterFor = [&console](const MacAddress& mac) { return console->desk().afterFor(mac); };
  }
  HeadlessInstaller installer(server, SteadyClock::instance(), options, sets, remembered, std::cout, std::cerr);
  if (!webText.empty()) {
    console = std::make_unique<web::WebConsole>(installer.desk(), sets, remembered, &settings, SteadyClock::instance(),
                                                access);
    console->desk().setDefaultAfter(options.after);
    netbootPanel.enabled = netbootOptions.netboot;
    netbootPanel.clientAddress = clientText;
    netbootPanel.interfaceAddress = netboot::formatIpv4(netboot::serverAddress());
    netbootPanel.interfaceMac = macText(service.transport().localMac());
    if (netbootOptions.netboot) web::fillBootImages(netbootPanel);
    console->desk().setNetboot(netbootPanel);
    std::string error;
    if (!console->start(webAddress, webPort, error)) {
      std::cerr << "tarnlift: cannot listen on " << webText << ": " << error << std::endl;
      return kExitFailed;
    }
    logLine() << "serve: web console on http://" << web::dottedHostOrder(webAddress) << ":" << console->port() << "/";
  }
  while (gStopRequested == 0) {
    if (console) {
      std::lock_guard<std::mutex> lock(console->desk().lock());
      installer.tick();
      console->desk().publishChanges();
      web::fillNetbootActivity(netbootPanel);
      console->desk().setNetboot(netbootPanel);
    } else {
      installer.tick();
    }
    if (count != 0 && installer.finished() >= count) break;
    sleepMilliseconds(250);
  }
  if (console) console->stop();
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
