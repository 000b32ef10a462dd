// `tarnlift serve`'s run on the install side: the inventory, address pool,
// results file and finish command it was given, the loop that ticks the
// headless installer every 250 ms and re-reads what a hang-up asks for,
// and the end (what is remembered for the next run, the summary line, the
// outcome). The command line parses the options, opens the servers and the
// web console and hands them to this. The signals and the wait between
// ticks come in through ServeHooks and the web console through
// DeskCompanion, so that tests drive the whole loop in test time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <set>
#include <string>

#include "app/clock.h"
#include "app/registry.h"
#include "install/finish_command.h"
#include "install/headless.h"
#include "install/results_log.h"
#include "install/session.h"
#include "packages/package_sets.h"

namespace tarnlift::install {

// What serve's options ask of the run beyond HeadlessOptions.
struct ServeRunOptions {
  std::string inventoryFile;  // "": none
  std::string poolText;       // --address-pool; "": none
  bool addressGiven = false;  // --address, which excludes the pool
  std::string resultsFile;    // "": none
  std::string onFinish;       // the command run for each router that ends; "": none
  size_t onFinishJobs = FinishCommand::kDefaultMaxRunning;
  uint32_t count = 0;  // end once this many routers finished; 0: never
  bool noSave = false;
};

// Another front end on the installer's desk (the web console): its calls
// come with deskLock() held, as every desk change of the loop does.
class DeskCompanion {
 public:
  virtual ~DeskCompanion() = default;
  virtual std::mutex& deskLock() = 0;
  // After the installer read the package folder again.
  virtual void rereadPackages() = 0;
  // After each of the installer's ticks.
  virtual void afterTick() = 0;
};

struct ServeHooks {
  std::function<bool()> stopRequested;
  std::function<bool()> reloadRequested;  // a hang-up
  std::function<void()> wait;             // the 250 ms between ticks
};

class ServeService {
 public:
  // The settings key of the pool's remembered addresses.
  static constexpr const char* kPoolSettingsValue = "Address Pool";

  ServeService(HeadlessOptions& options, packages::PackageSets& sets, app::Registry& settings, ServeRunOptions run);
  ServeService(const ServeService&) = delete;
  ServeService& operator=(const ServeService&) = delete;

  // Reads the inventory (checked whole: a bad line refuses the run), builds
  // the pool, opens the results file and starts the finish command. False
  // with `error` when one refuses; `usage` then says whether the command
  // line was at fault (the inventory, --only-known, the pool) rather than
  // the machine (the results file).
  bool prepare(std::string& error, bool& usage);

  // Whether network booting may answer this MAC with --only-known: one of
  // --mac or of the inventory in force. Safe from the booting thread.
  bool knows(const MacAddress& mac) const;

  // The installer on `server`, with the remembered choices read from the
  // settings. The options' afterFor and sendBeacon are set before this.
  HeadlessInstaller& startInstaller(InstallServer& server, const app::Clock& clock, std::ostream& out,
                                    std::ostream& err);
  HeadlessInstaller& installer() { return *installer_; }
  RememberedChoices& remembered() { return remembered_; }

  // Ticks until a stop request or the count of finished routers; true when
  // a stop request ended it.
  bool run(const ServeHooks& hooks, DeskCompanion* companion);
  // The hang-up: the inventory (when there is one) and the package folder
  // read again. A bad inventory keeps the one in force.
  void reload(DeskCompanion* companion);

  // Once the servers are closed: the finish commands get their bounded
  // time, what is remembered is saved (unless noSave) and the summary
  // logged. True for a clean end: stopped by request, or no router failed.
  bool finish(bool stoppedByRequest);

 private:
  bool loadInventory(Inventory& inventory, std::string& error) const;
  void reservePoolAddresses(const Inventory& inventory);
  void rememberKnown();
  // The installer's step, then the companion's, with the desk lock held
  // when there is a companion.
  void onDesk(DeskCompanion* companion, void (HeadlessInstaller::*step)(), void (DeskCompanion::*then)());

  HeadlessOptions& options_;
  packages::PackageSets& sets_;
  app::Registry& settings_;
  ServeRunOptions run_;
  RememberedChoices remembered_;
  std::shared_ptr<ResultsLog> results_;
  std::shared_ptr<FinishCommand> finishCommand_;
  std::unique_ptr<HeadlessInstaller> installer_;
  // The MACs of knows(), replaced when a hang-up re-reads the inventory.
  mutable std::mutex knownLock_;
  std::set<MacAddress> known_;
};

}  // namespace tarnlift::install
