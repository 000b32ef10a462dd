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
#include <set>
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
#include "cli/privileges.h"
#include "cli/server_guard.h"
#include "cli/stop_signals.h"
#include "install/finish_command.h"
#include "install/headless.h"
#include "install/install_service.h"
#include "install/results_log.h"
#include "install/session.h"
#include "install/transport.h"
#include "netboot/interfaces.h"
#include "netboot/netboot_service.h"
#include "web/web_console.h"

namespace tarnlift::cli {
namespace {

// Which MAC got which address from the pool, kept across runs.
constexpr const char* kPoolSettingsValue = "Address Pool";

struct ServeArguments {
  HeadlessOptions options;
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
  uint32_t onFinishJobs = FinishCommand::kDefaultMaxRunning;
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
  HeadlessOptions& options = arguments.options;
  if (int code = checkNetbootOptions(arguments.netbootOptions, true); code != kExitOk) return code;
  // Read as the window's address fields read their text.
  if (!arguments.addressText.empty()) {
    const std::string& text = arguments.addressText;
    const size_t slash = text.find('/');
    options.choices.address = addressFromText(text.substr(0, slash));
    if (slash != std::string::npos) options.choices.netmaskBits = netmaskBitsFromText(text.substr(slash + 1));
    if (options.choices.address == 0) return usageError("bad address '" + text + "'");
  }
  if (!arguments.gatewayText.empty()) {
    options.choices.gateway = addressFromText(arguments.gatewayText);
    if (options.choices.gateway == 0) return usageError("bad gateway address");
  }
  if (!arguments.afterText.empty()) {
    if (arguments.afterText == "reboot") {
      options.after = AfterInstall::Reboot;
    } else if (arguments.afterText == "shutdown") {
      options.after = AfterInstall::Shutdown;
    } else if (arguments.afterText == "none") {
      options.after = AfterInstall::None;
    } else {
      return usageError("--after needs reboot, shutdown or none");
    }
  }
  for (const std::string& text : arguments.macTexts) {
    MacAddress mac{};
    if (!parseMac(text, mac)) return usageError("--mac needs a MAC such as 4C:5E:0C:01:02:03");
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

int runServe(ServeArguments& arguments) {
  HeadlessOptions& options = arguments.options;
  netboot::NetbootServeOptions& netbootOptions = arguments.netbootOptions;
  const std::string& clientText = arguments.clientText;
  const std::string& webText = arguments.webText;
  const std::string& webTokenFile = arguments.webTokenFile;
  const bool beacon = arguments.beacon;
  const bool havePackages = arguments.given.packages->count() > 0;
  std::string netbootError;
  uint32_t count = 0;
  if (int code = checkServeArguments(arguments, count); code != kExitOk) return code;
  installStopSignals();
  uint32_t client = addressFromText(clientText);
  if (client == 0) return usageError("serve needs --client-address A.B.C.D");
  uint32_t webAddress = 0;
  uint16_t webPort = 0;
  web::WebAccess access;
  if (!webText.empty()) {
    std::string error;
    if (!web::parseListenAddress(webText, webAddress, webPort, error)) return usageError(error);
    if (!webTokenFile.empty()) {
      if (!web::readTokenFile(webTokenFile, access.token, error)) return usageError(error);
      if (std::string exposure = web::tokenFileExposure(webTokenFile); !exposure.empty()) {
        logLine(LogPriority::Warning) << "serve: warning: the token file " << webTokenFile << " is " << exposure
                                      << "; chmod 600 it";
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
  if (std::string missing = missingServerPrivileges(netbootOptions.netboot); !missing.empty()) return failure(missing);
  if (!arguments.interfaceName.empty()) netboot::setOnlyInterface(arguments.interfaceName);
  if (!acquireServerGuard(arguments.interfaceName)) return kExitFailed;

  Registry settings;
  settings.openRoot(kSettingsKeyPath);
  packages::PackageSets sets;
  sets.loadSets(settings);
  if (!arguments.inventoryFile.empty()) {
    // Checked whole before anything is sent: a bad line refuses the run.
    std::string error;
    if (!options.inventory.load(
            arguments.inventoryFile, [&sets](const std::string& name) { return sets.contains(name); }, error)) {
      return usageError(error);
    }
    logLine() << "serve: inventory " << arguments.inventoryFile << " lists " << options.inventory.size() << " routers";
  }
  if (options.onlyKnown && options.inventory.size() == 0 && options.macs.empty()) {
    return usageError("--only-known needs --inventory FILE or --mac MAC");
  }
  if (!arguments.poolText.empty()) {
    auto pool = std::make_shared<AddressPool>();
    std::string error;
    if (!pool->parse(arguments.poolText, error)) return usageError(error);
    if (!arguments.addressText.empty()) return usageError("--address and --address-pool exclude each other");
    // The inventory's own addresses are never handed out from the pool.
    for (const auto& [mac, entry] : options.inventory.entries()) {
      if (entry.choices.gives(GivenChoices::kAddress)) pool->reserve(AddressPool::hostOrder(entry.choices.values.address));
    }
    pool->loadRemembered(settings.readString(kPoolSettingsValue, ""));
    options.pool = pool;
  }
  std::shared_ptr<ResultsLog> results;
  if (!arguments.resultsFile.empty()) {
    results = std::make_shared<ResultsLog>();
    std::string error;
    if (!results->open(arguments.resultsFile, error)) return failure(error);
  }
  std::shared_ptr<FinishCommand> finishCommand;
  if (!arguments.onFinish.empty()) finishCommand = std::make_shared<FinishCommand>(arguments.onFinish, arguments.onFinishJobs);
  if (results || finishCommand) {
    options.onEnded = [results, finishCommand](const RouterResult& result) {
      if (results) results->write(result);
      if (finishCommand) finishCommand->submit(result);
    };
  }
  // The MACs network booting answers with --only-known: the same routers the
  // installer takes. Shared with the "PXE Booter" thread, and replaced when
  // a hang-up re-reads the inventory.
  auto knownLock = std::make_shared<std::mutex>();
  auto known = std::make_shared<std::set<MacAddress>>();
  auto rememberKnown = [&options, knownLock, known] {
    std::set<MacAddress> macs = options.macs;
    for (const auto& [mac, entry] : options.inventory.entries()) macs.insert(mac);
    std::lock_guard<std::mutex> lock(*knownLock);
    *known = std::move(macs);
  };
  if (options.onlyKnown) {
    rememberKnown();
    netbootOptions.mayAnswer = [knownLock, known](const uint8_t* bytes) {
      MacAddress mac{};
      std::copy(bytes, bytes + mac.size(), mac.begin());
      std::lock_guard<std::mutex> lock(*knownLock);
      return known->count(mac) != 0;
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

  RememberedChoices remembered;
  remembered.load(settings);
  options.liveProgress = !options.json && terminalShowsLiveProgress();
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
  // Everything listens: a service manager may now count the unit as started.
  notifyServiceManager("READY=1");
  bool stoppedBySignal = false;
  while (true) {
    if (stopRequested()) {
      stoppedBySignal = true;
      break;
    }
    if (takeReloadRequest()) {
      logLine() << "serve: hang-up: re-reading the package folder " << options.packageDir;
      if (!arguments.inventoryFile.empty()) {
        // Checked whole, as at the start: a bad line keeps the inventory
        // that was in force, so nothing is half-applied.
        Inventory fresh;
        std::string error;
        if (!fresh.load(
                arguments.inventoryFile, [&sets](const std::string& name) { return sets.contains(name); }, error)) {
          logLine(LogPriority::Warning) << "serve: hang-up: inventory not re-read, the previous one stays: " << error;
        } else {
          std::unique_lock<std::mutex> lock;
          if (console) lock = std::unique_lock<std::mutex>(console->desk().lock());
          if (options.pool) {
            for (const auto& [mac, entry] : fresh.entries()) {
              if (entry.choices.gives(GivenChoices::kAddress)) {
                options.pool->reserve(AddressPool::hostOrder(entry.choices.values.address));
              }
            }
          }
          logLine() << "serve: hang-up: inventory " << arguments.inventoryFile << " re-read: " << fresh.size()
                    << " routers";
          options.inventory = fresh;
          installer.setInventory(std::move(fresh));
          if (options.onlyKnown) rememberKnown();
        }
      }
      if (console) {
        std::lock_guard<std::mutex> lock(console->desk().lock());
        installer.rereadPackages();
        console->desk().rereadPackages();
      } else {
        installer.rereadPackages();
      }
    }
    if (console) {
      std::lock_guard<std::mutex> lock(console->desk().lock());
      installer.tick();
      console->desk().publishChanges();
      web::fillNetbootActivity(netbootPanel);
      // The network boot thread may have walked the adapters again since.
      netbootPanel.interfaceAddress = netboot::formatIpv4(netboot::serverAddress());
      console->desk().setNetboot(netbootPanel);
    } else {
      installer.tick();
    }
    if (count != 0 && installer.finished() >= count) break;
    sleepMilliseconds(250);
  }
  notifyServiceManager("STOPPING=1");
  if (console) console->stop();
  // Sessions still running end with the process, as when the window closes;
  // the routers time out and can be installed again.
  server.destroy();
  service.transport().close();
  if (beacon) setBeacon(false);
  netbootService.stop();
  // The last routers' commands get their bounded time to end.
  if (finishCommand) finishCommand->stop(FinishCommand::kDefaultStopWaitMs);
  if (!arguments.noSave) {
    if (options.pool) settings.writeString(kPoolSettingsValue, options.pool->rememberedText());
    remembered.save(settings);
    sets.saveSets(settings);
  }
  logLine() << "serve: " << installer.succeeded() << " installed, " << installer.failed() << " failed";
  // Told to stop, the server did what it was told: a clean end. A --count
  // run reports whether its routers succeeded.
  if (stoppedBySignal) return kExitOk;
  return installer.failed() == 0 ? kExitOk : kExitFailed;
}

CommandRun defineServe(CLI::App& app) {
  auto arguments = std::make_shared<ServeArguments>();
  HeadlessOptions& options = arguments->options;
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
