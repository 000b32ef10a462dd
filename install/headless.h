// The headless front end's engine: the window's desk (install/desk.h)
// driven without a window. Every discovered router (or only the named ones)
// is listed as in the window and installed with the same Install command
// and rules; the choice of packages goes through the catalogue's selection
// logic, as ticking boxes does. Without a set or files from the inventory
// or the command line, a router gets the package folder's default
// selection (what "Select all" ticks for its architecture), never what an
// earlier run remembered: runs are reproducible. The window keeps giving
// "Previous Install".
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "install/desk.h"
#include "install/address_pool.h"
#include "install/install_command.h"
#include "install/inventory.h"
#include "install/results_log.h"
#include "install/session.h"
#include "packages/package_catalogue.h"
#include "packages/package_sets.h"

namespace tarnlift::install {

struct HeadlessOptions {
  std::string packageDir;
  std::vector<std::string> select;  // file names to tick, in order
  std::string setName;              // a saved package set, or empty
  InstallChoices choices;           // for every router, unless its inventory section says otherwise
  AfterInstall after = AfterInstall::Reboot;
  std::set<MacAddress> macs;  // empty: every router
  // Per-router values that win over the ones above.
  Inventory inventory;
  // Only routers of `macs` or of the inventory are installed; any other is
  // logged once and left alone.
  bool onlyKnown = false;
  // Addresses for the routers the inventory gives none; null: none.
  std::shared_ptr<AddressPool> pool;
  // Called with the facts of every router that ends; unset: nothing.
  std::function<void(const RouterResult&)> onEnded;
  // Standard output gets JSON lines (router seen, progress, ended) instead
  // of the table.
  bool json = false;
  bool liveProgress = false;  // a terminal: redraw one line per router
  // Routers are listed and stay "Ready" until another front end (the web
  // console) installs them.
  bool hold = false;
  // What to do after installing a given router; unset: `after` for all.
  std::function<AfterInstall(const MacAddress&)> afterFor;
  // Sends the beacon once; called on every fourth tick when set.
  std::function<void()> sendBeacon;
};

class HeadlessInstaller : public InstallPrompter {
 public:
  HeadlessInstaller(InstallServer& server, const app::Clock& clock, HeadlessOptions options,
                    packages::PackageSets& sets, RememberedChoices& remembered, std::ostream& out, std::ostream& err);

  // One round of the window's timer: drain discovered routers and install
  // them, expire silent ones, poll the sessions and act on their news.
  void tick();

  // Reads the package folder again (files added or replaced since start),
  // logging what it found; later installs choose from what is there now.
  void rereadPackages();
  // Puts a newly read inventory in force for the routers installed from now
  // on (a hang-up re-reads the file).
  void setInventory(Inventory inventory) { options_.inventory = std::move(inventory); }

  size_t finished() const { return succeeded_ + failed_; }
  size_t succeeded() const { return succeeded_; }
  size_t failed() const { return failed_; }
  RouterTable& table() { return desk_.table(); }
  InstallDesk& desk() { return desk_; }

  void showMessage(const std::string& text, const std::string& title, bool errorIcon) override;
  bool askYesNo(const std::string& text) override;

 private:
  void install(RouterRow& row);
  // confirmed: the router answered the end of its files with "WTRM".
  void finish(const RouterRecord& record, bool success, const std::string& text, bool confirmed = false);
  void progress(const RouterRow& row);
  void redraw();
  bool mayInstall(const MacAddress& mac);

  InstallServer& server_;
  ServerRouterInstaller routers_;
  NoDriveInstaller drives_;
  HeadlessOptions options_;
  packages::PackageSets& sets_;
  RememberedChoices& remembered_;
  std::ostream& out_;
  std::ostream& err_;
  InstallDesk desk_;
  packages::PackageCatalogue catalogue_;
  std::vector<MacAddress> shown_;  // rows of the live display, in order
  size_t drawnLines_ = 0;
  size_t succeeded_ = 0;
  size_t failed_ = 0;
  std::string refusal_;
  std::set<MacAddress> ignored_;
  const app::Clock& clock_;
  // What the results need of an install that started.
  struct Started {
    uint64_t micros = 0;
    std::string address;                // given, A.B.C.D/BITS or ""
    std::vector<std::string> files;     // sent, in install order
    std::vector<std::string> versions;  // of each file's package
  };
  std::map<MacAddress, Started> started_;
};

// Whether progress may be drawn live: standard output is a terminal that
// understands the cursor movements the live lines use. Not for TERM=dumb
// (or no TERM at all) on Linux; on Windows the console's escape-sequence
// mode is switched on here, and a console that refuses it gets plain lines.
bool terminalShowsLiveProgress();

}  // namespace tarnlift::install
