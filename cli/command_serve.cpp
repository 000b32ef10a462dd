// `tarnlift serve`: the "Router installer" without a window. Runs the
// installation server on the interface that reaches the client address and
// installs routers as they announce themselves, with the Install command's
// rules; prints one final line per finished router on standard output. With
// --beacon it also asks the routers on the segment to boot over the network,
// once a second, as the window does when "Force Inst" is on.
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
#include "app/service_manager.h"
#include "app/sync.h"
#include "cli/choice_options.h"
#include "cli/cli_options.h"
#include "doctor/explain.h"
#include "cli/command.h"
#include "cli/netboot_options.h"
#include "doctor/privileges.h"
#include "cli/server_guard.h"
#include "cli/stop_signals.h"
#include "install/finish_command.h"
#include "install/headless.h"
#include "install/install_service.h"
#include "install/serve_service.h"
#include "install/session.h"
#include "install/transport.h"
#include "net/address.h"
#include "netboot/interfaces.h"
#include "netboot/netboot_service.h"
#include "web/web_console.h"

namespace tarnlift::cli {
namespace {

struct ServeArguments {
  install::HeadlessOptions options;
  ChoiceOptions given;
  netboot::NetbootServeOptions netbootOptions;
  std::string clientText;
  std::string addressText;
  std::string gatewayText;
  std::string afterText;
  std::vector<std::string> macTexts;
  std::string countText;
  bool beacon = false;
  std::string webText;
  std::string webTokenFile;
  std::vector<std::string> webOrigins;
  std::string interfaceName;
  std::string inventoryFile;
  std::string poolText;
  std::string resultsFile;
  std::string onFinish;
  bool onFinishGiven = false;
  std::string onFinishJobsText;
  uint32_t onFinishJobs = install::FinishCommand::kDefaultMaxRunning;
  bool noSave = false;
};

bool parseCount(const std::string& text, uint32_t& value) {
  uint64_t n = 0;
  if (!parseUnsigned(text, n, 0xFFFFFFFFu)) return false;
  value = static_cast<uint32_t>(n);
  return true;
}

// The option values that need more than CLI11's reading, checked as the
// window's controls check them. kExitOk or the usage error's exit code.
int checkServeArguments(ServeArguments& arguments, uint32_t& count) {
  install::HeadlessOptions& options = arguments.options;
  if (int code = checkNetbootOptions(arguments.netbootOptions, true); code != kExitOk) return code;
  // Read as the window's address fields read their text.
  if (!arguments.addressText.empty()) {
    const std::string& text = arguments.addressText;
    const size_t slash = text.find('/');
    options.choices.address = install::addressFromText(text.substr(0, slash));
    if (slash != std::string::npos) options.choices.netmaskBits = install::netmaskBitsFromText(text.substr(slash + 1));
    if (options.choices.address == 0) return usageError("bad address '" + text + "'");
  }
  if (!arguments.gatewayText.empty()) {
    options.choices.gateway = install::addressFromText(arguments.gatewayText);
    if (options.choices.gateway == 0) return usageError("bad gateway address");
  }
  if (!arguments.afterText.empty()) {
    if (arguments.afterText == "reboot") {
      options.after = install::AfterInstall::Reboot;
    } else if (arguments.afterText == "shutdown") {
      options.after = install::AfterInstall::Shutdown;
    } else if (arguments.afterText == "none") {
      options.after = install::AfterInstall::None;
    } else {
      return usageError("--after needs reboot, shutdown or none");
    }
  }
  for (const std::string& text : arguments.macTexts) {
    net::MacAddress mac{};
    if (!net::parseMac(text, mac)) return usageError("--mac needs a MAC such as 4C:5E:0C:01:02:03");
    options.macs.insert(mac);
  }
  if (arguments.onFinishGiven && arguments.onFinish.empty()) return usageError("--on-finish needs a command");
  if (!arguments.onFinishJobsText.empty()) {
    if (!parseCount(arguments.onFinishJobsText, arguments.onFinishJobs) || arguments.onFinishJobs == 0 ||
        arguments.onFinishJobs > 64) {
      return usageError("--on-finish-jobs needs a number from 1 to 64");
    }
    if (!arguments.onFinishGiven) return usageError("--on-finish-jobs needs --on-finish CMD");
  }
  if (!arguments.countText.empty() && (!parseCount(arguments.countText, count) || count == 0)) {
    return usageError("--count needs a positive number");
  }
  return checkChoiceOptions(arguments.given, options);
}

// --web and what goes with it: where to listen, the token, the origins;
// a console that others could reach needs a token. kExitOk or the usage
// error's exit code.
int checkWebArguments(const ServeArguments& arguments, uint32_t& webAddress, uint16_t& webPort,
                      web::WebAccess& access) {
  const std::string& webText = arguments.webText;
  const std::string& webTokenFile = arguments.webTokenFile;
  const install::HeadlessOptions& options = arguments.options;
  if (!webText.empty()) {
    std::string error;
    if (!web::parseListenAddress(webText, webAddress, webPort, error)) return usageError(error);
    if (!webTokenFile.empty()) {
      if (!web::readTokenFile(webTokenFile, access.token, error)) return usageError(error);
      if (std::string exposure = web::tokenFileExposure(webTokenFile); !exposure.empty()) {
        app::logLine(app::LogPriority::Warning)
            << "serve: warning: the token file " << webTokenFile << " is " << exposure << "; chmod 600 it";
      }
    }
    for (const std::string& text : arguments.webOrigins) {
      std::string origin;
      if (!web::normaliseOrigin(text, origin, error)) return usageError(error);
      access.origins.push_back(origin);
    }
    if (!web::isLoopbackAddress(webAddress) && access.token.empty()) {
      return usageError("--web " + webText +
                        " would let other machines drive the installs without a password: add --web-token FILE "
                        "(a file whose first line is the token), or listen on 127.0.0.1");
    }
  } else if (options.hold || !webTokenFile.empty() || !arguments.webOrigins.empty()) {
    return usageError(std::string(options.hold            ? "--hold"
                                  : !webTokenFile.empty() ? "--web-token"
                                                          : "--web-origin") +
                      " needs --web [ADDRESS:]PORT");
  }
  return kExitOk;
}

// What the run itself takes of the arguments.
install::ServeRunOptions runOptionsOf(const ServeArguments& arguments, uint32_t count) {
  install::ServeRunOptions run;
  run.inventoryFile = arguments.inventoryFile;
  run.poolText = arguments.poolText;
  run.addressGiven = !arguments.addressText.empty();
  run.resultsFile = arguments.resultsFile;
  run.onFinish = arguments.onFinish;
  run.onFinishJobs = arguments.onFinishJobs;
  run.count = count;
  run.noSave = arguments.noSave;
  return run;
}

// The web console on the installer's desk: it reads the packages again with
// the installer, publishes each tick's changes and shows the network boot
// panel as it stands.
class ConsoleCompanion : public install::DeskCompanion {
 public:
  ConsoleCompanion(web::WebConsole& console, web::NetbootSnapshot& panel) : console_(console), panel_(panel) {}
  std::mutex& deskLock() override { return console_.desk().lock(); }
  void rereadPackages() override { console_.desk().rereadPackages(); }
  void afterTick() override {
    console_.desk().publishChanges();
    web::fillNetbootActivity(panel_);
    // The network boot thread may have walked the adapters again since.
    panel_.interfaceAddress = netboot::formatIpv4(netboot::serverAddress());
    console_.desk().setNetboot(panel_);
  }

 private:
  web::WebConsole& console_;
  web::NetbootSnapshot& panel_;
};

int runServe(ServeArguments& arguments) {
  install::HeadlessOptions& options = arguments.options;
  netboot::NetbootServeOptions& netbootOptions = arguments.netbootOptions;
  const std::string& clientText = arguments.clientText;
  const std::string& webText = arguments.webText;
  const bool beacon = arguments.beacon;
  const bool havePackages = arguments.given.packages->count() > 0;
  std::string netbootError;
  uint32_t count = 0;
  if (int code = checkServeArguments(arguments, count); code != kExitOk) return code;
  installStopSignals();
  uint32_t client = install::addressFromText(clientText);
  if (client == 0) return usageError("serve needs --client-address A.B.C.D");
  uint32_t webAddress = 0;
  uint16_t webPort = 0;
  web::WebAccess access;
  if (int code = checkWebArguments(arguments, webAddress, webPort, access); code != kExitOk) return code;
  if (std::string missing = doctor::missingServerPrivileges(netbootOptions.netboot); !missing.empty()) return failure(missing);
  if (!arguments.interfaceName.empty()) netboot::setOnlyInterface(arguments.interfaceName);
  if (!acquireServerGuard(arguments.interfaceName)) return kExitFailed;

  app::Registry settings;
  settings.openRoot(app::kSettingsKeyPath);
  packages::PackageSets sets;
  sets.loadSets(settings);
  install::ServeService serve(options, sets, settings, runOptionsOf(arguments, count));
  {
    std::string error;
    bool usage = false;
    if (!serve.prepare(error, usage)) return usage ? usageError(error) : failure(error);
  }
  if (options.onlyKnown) {
    // Network booting answers the same routers the installer takes.
    netbootOptions.mayAnswer = [&serve](const uint8_t* bytes) {
      net::MacAddress mac{};
      std::copy(bytes, bytes + mac.size(), mac.begin());
      return serve.knows(mac);
    };
  }
  settings.writeInt("PXE Client Address", client);
  if (havePackages) {
    if (!arguments.noSave) settings.writeString("Package Path", options.packageDir);
  } else {
    options.packageDir = settings.readString("Package Path", ".");
  }

  netboot::findInterface(client);
  if (netboot::serverAddress() == 0) {
    // The command line is right; the machine is not set up for it.
    int code = arguments.interfaceName.empty()
                   ? failure("no network interface reaches " + clientText)
                   : failure("the interface " + arguments.interfaceName + " does not reach " + clientText +
                             " (no address of it holds that subnet, or there is no such interface)");
    std::cerr << "tarnlift: " << doctor::explainNoInterface(client, arguments.interfaceName) << std::endl;
    return code;
  }

  // Network booting runs beside the installer, on the same interface.
  netboot::NetbootService netbootService;
  if (netbootOptions.netboot && !netbootService.start(client, netbootOptions, netbootError)) {
    std::cerr << "tarnlift: " << netbootError << std::endl;
    return kExitFailed;
  }

  options.liveProgress = !options.json && install::terminalShowsLiveProgress();
  if (beacon) {
    install::setBeacon(true);
    options.sendBeacon = [] {
      if (install::InstallBeacon* b = install::processBeacon()) b->send();
    };
  }

  // The same "Router installer" the window takes, on port 5000.
  install::InstallService service(install::kInstallPort);
  install::InstallServer& server = service.server();
  app::logLine() << "serve: installing on " << netboot::formatIpv4(netboot::serverAddress()) << " port "
                 << service.transport().port() << " as " << install::macText(service.transport().localMac());

  std::unique_ptr<web::WebConsole> console;
  web::NetbootSnapshot netbootPanel;
  if (!webText.empty()) {
    options.afterFor = [&console](const net::MacAddress& mac) { return console->desk().afterFor(mac); };
  }
  install::HeadlessInstaller& installer =
      serve.startInstaller(server, app::SteadyClock::instance(), std::cout, std::cerr);
  std::optional<ConsoleCompanion> companion;
  if (!webText.empty()) {
    console = std::make_unique<web::WebConsole>(installer.desk(), sets, serve.remembered(), &settings,
                                                app::SteadyClock::instance(), access);
    console->desk().setDefaultAfter(options.after);
    netbootPanel.enabled = netbootOptions.netboot;
    netbootPanel.clientAddress = clientText;
    netbootPanel.interfaceAddress = netboot::formatIpv4(netboot::serverAddress());
    netbootPanel.interfaceMac = install::macText(service.transport().localMac());
    if (netbootOptions.netboot) web::fillBootImages(netbootPanel);
    console->desk().setNetboot(netbootPanel);
    std::string error;
    if (!console->start(webAddress, webPort, error)) {
      std::cerr << "tarnlift: cannot listen on " << webText << ": " << error << std::endl;
      return kExitFailed;
    }
    app::logLine() << "serve: web console on http://" << net::formatHostOrderIpv4(webAddress) << ":" << console->port()
                   << "/";
    companion.emplace(*console, netbootPanel);
  }
  // Everything listens: a service manager may now count the unit as started.
  app::notifyServiceManager("READY=1");
  const bool stoppedBySignal = serve.run({stopRequested, takeReloadRequest, [] { app::sleepMilliseconds(250); }},
                                         companion ? &*companion : nullptr);
  app::notifyServiceManager("STOPPING=1");
  if (console) console->stop();
  // Sessions still running end with the process, as when the window closes;
  // the routers time out and can be installed again.
  server.destroy();
  service.transport().close();
  if (beacon) install::setBeacon(false);
  netbootService.stop();
  return serve.finish(stoppedBySignal) ? kExitOk : kExitFailed;
}

CommandRun defineServe(CLI::App& app) {
  auto arguments = std::make_shared<ServeArguments>();
  install::HeadlessOptions& options = arguments->options;
  addValue(app, "--client-address", arguments->clientText, "A.B.C.D",
           "The address handed to booting routers; the interface that reaches it is served (required).");
  arguments->given = addChoiceOptions(app, options);
  addOptionsFileOption(app);
  addValue(app, "--interface", arguments->interfaceName, "NAME",
           "Serve only this network interface (such as eth1), and let one server run on each interface "
           "(default: the first interface that reaches the client address; one server per network).");
  const char* install = "Install options (every router of the run)";
  addSwitch(app, "--keep-config", options.choices.keepConfig, "Keep the router's old configuration.")
      ->group(install);
  addValue(app, "--address", arguments->addressText, "A.B.C.D/BITS",
           "Give the router this address and netmask (default: none).")
      ->group(install);
  addValue(app, "--gateway", arguments->gatewayText, "A.B.C.D", "Give the router this gateway (default: none).")
      ->group(install);
  addSwitch(app, "--default-config", options.choices.defaultConfig, "Apply the default configuration.")
      ->group(install);
  app.add_flag_callback(
         "--remove-branding", [&options] { options.choices.keepBranding = false; },
         "Do not keep the router's branding (default: keep it).")
      ->group(install);
  addValue(app, "--after", arguments->afterText, "reboot|shutdown|none",
           "What the router does once installed (default: reboot).")
      ->group(install);
  const char* which = "Which routers, and how long";
  addRepeated(app, "--mac", arguments->macTexts, "MAC",
              "Install only this router (such as 4C:5E:0C:01:02:03); repeatable (default: every router).")
      ->group(which);
  addValue(app, "--count", arguments->countText, "N",
           "End after N routers have finished (default: run until interrupted).")
      ->group(which);
  addSwitch(app, "--beacon", arguments->beacon,
            "Ask the routers on the segment to boot over the network, once a second.")
      ->group(which);
  addValue(app, "--inventory", arguments->inventoryFile, "FILE",
           "Per-router values by MAC (address, scripts, packages, ...), winning over the command line's; "
           "see docs/fleet.md.")
      ->group(which);
  addValue(app, "--address-pool", arguments->poolText, "A.B.C.D-A.B.C.E/BITS",
           "Give each router without an inventory address the next free address of this range; a router "
           "installed again gets its address again.")
      ->group(install);
  addValue(app, "--results", arguments->resultsFile, "FILE",
           "Append one JSON line per router that ends (time, MAC, label, address, files, versions, bytes, "
           "seconds, result, text) to FILE.")
      ->group(which);
  CLI::Option* onFinish =
      addValue(app, "--on-finish", arguments->onFinish, "CMD",
               "Run CMD after each router ends (/bin/sh -c CMD; cmd.exe /c CMD on Windows) with the results' "
               "facts in TARNLIFT_MAC, TARNLIFT_RESULT, ... (see docs/fleet.md); its output goes to the log.")
          ->group(which);
  addValue(app, "--on-finish-jobs", arguments->onFinishJobsText, "N",
           "How many --on-finish commands run at once; the others wait their turn (default: 4; 1: one at a time, "
           "in the order the routers ended).")
      ->group(which);
  addSwitch(app, "--no-save", arguments->noSave,
            "Leave the remembered settings (\"Previous Install\", package folder, pool addresses) untouched.")
      ->group(which);
  addSwitch(app, "--json", options.json,
            "Write JSON lines (router seen, progress, ended) on standard output instead of the table.")
      ->group(which);
  addSwitch(app, "--only-known", options.onlyKnown,
            "Install and network-boot only the routers of --inventory and --mac; others are left alone.")
      ->group(which);
  addNetbootOptions(app, arguments->netbootOptions, true);
  const char* web = "Web console and API";
  addValue(app, "--web", arguments->webText, "[ADDRESS:]PORT",
           "Serve the web console and API here (ADDRESS default: 127.0.0.1; other addresses need --web-token).")
      ->group(web);
  addValue(app, "--web-token", arguments->webTokenFile, "FILE",
           "Every web request needs the token in the first line of FILE (at least 16 characters; make one with "
           "openssl rand -hex 16).")
      ->group(web);
  addRepeated(app, "--web-origin", arguments->webOrigins, "URL",
              "Also take writes from pages of this origin, such as https://provisioning.example when a reverse "
              "proxy serves the console there; repeatable.")
      ->group(web);
  addSwitch(app, "--hold", options.hold,
            "List routers and keep them \"Ready\" until the web console or API installs them.")
      ->group(web);
  return [arguments, onFinish] {
    arguments->onFinishGiven = onFinish->count() > 0;
    return runServe(*arguments);
  };
}

const CliCommandRegistrar serveCommand(
    {"serve", "Install routers as they announce themselves, without a window.", &defineServe});

}  // namespace
}  // namespace tarnlift::cli
