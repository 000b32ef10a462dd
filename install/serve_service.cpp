#include "install/serve_service.h"

#include "app/log.h"
#include "net/address.h"

namespace tarnlift::install {

ServeService::ServeService(HeadlessOptions& options, packages::PackageSets& sets, app::Registry& settings,
                           ServeRunOptions run)
    : options_(options), sets_(sets), settings_(settings), run_(std::move(run)) {}

bool ServeService::loadInventory(Inventory& inventory, std::string& error) const {
  return inventory.load(
      run_.inventoryFile, [this](const std::string& name) { return sets_.contains(name); }, error);
}

bool ServeService::prepare(std::string& error, bool& usage) {
  usage = true;
  if (!run_.inventoryFile.empty()) {
    if (!loadInventory(options_.inventory, error)) return false;
    app::logLine() << "serve: inventory " << run_.inventoryFile << " lists " << options_.inventory.size() << " routers";
  }
  if (options_.onlyKnown && options_.inventory.size() == 0 && options_.macs.empty()) {
    error = "--only-known needs --inventory FILE or --mac MAC";
    return false;
  }
  if (!run_.poolText.empty()) {
    auto pool = std::make_shared<AddressPool>();
    if (!pool->parse(run_.poolText, error)) return false;
    if (run_.addressGiven) {
      error = "--address and --address-pool exclude each other";
      return false;
    }
    options_.pool = pool;
    reservePoolAddresses(options_.inventory);
    pool->loadRemembered(settings_.readString(kPoolSettingsValue, ""));
  }
  usage = false;
  if (!run_.resultsFile.empty()) {
    results_ = std::make_shared<ResultsLog>();
    if (!results_->open(run_.resultsFile, error)) return false;
  }
  if (!run_.onFinish.empty()) finishCommand_ = std::make_shared<FinishCommand>(run_.onFinish, run_.onFinishJobs);
  if (results_ || finishCommand_) {
    options_.onEnded = [results = results_, finishCommand = finishCommand_](const RouterResult& result) {
      if (results) results->write(result);
      if (finishCommand) finishCommand->submit(result);
    };
  }
  if (options_.onlyKnown) rememberKnown();
  return true;
}

// The inventory's own addresses are never handed out from the pool.
void ServeService::reservePoolAddresses(const Inventory& inventory) {
  if (!options_.pool) return;
  for (const auto& [mac, entry] : inventory.entries()) {
    if (entry.choices.gives(GivenChoices::kAddress)) {
      options_.pool->reserve(net::hostOrder(entry.choices.values.address));
    }
  }
}

void ServeService::rememberKnown() {
  std::set<MacAddress> macs = options_.macs;
  for (const auto& [mac, entry] : options_.inventory.entries()) macs.insert(mac);
  std::lock_guard<std::mutex> lock(knownLock_);
  known_ = std::move(macs);
}

bool ServeService::knows(const MacAddress& mac) const {
  std::lock_guard<std::mutex> lock(knownLock_);
  return known_.count(mac) != 0;
}

HeadlessInstaller& ServeService::startInstaller(InstallServer& server, const app::Clock& clock, std::ostream& out,
                                                std::ostream& err) {
  remembered_.load(settings_);
  installer_ = std::make_unique<HeadlessInstaller>(server, clock, options_, sets_, remembered_, out, err);
  return *installer_;
}

void ServeService::reload(DeskCompanion* companion) {
  app::logLine() << "serve: hang-up: re-reading the package folder " << options_.packageDir;
  if (!run_.inventoryFile.empty()) {
    // Checked whole, as at the start: a bad line keeps the inventory that
    // was in force, so nothing is half-applied.
    Inventory fresh;
    std::string error;
    if (!loadInventory(fresh, error)) {
      app::logLine(app::LogPriority::Warning)
          << "serve: hang-up: inventory not re-read, the previous one stays: " << error;
    } else {
      std::unique_lock<std::mutex> lock;
      if (companion) lock = std::unique_lock<std::mutex>(companion->deskLock());
      reservePoolAddresses(fresh);
      app::logLine() << "serve: hang-up: inventory " << run_.inventoryFile << " re-read: " << fresh.size()
                     << " routers";
      options_.inventory = fresh;
      installer_->setInventory(std::move(fresh));
      if (options_.onlyKnown) rememberKnown();
    }
  }
  onDesk(companion, &HeadlessInstaller::rereadPackages, &DeskCompanion::rereadPackages);
}

void ServeService::onDesk(DeskCompanion* companion, void (HeadlessInstaller::*step)(),
                          void (DeskCompanion::*then)()) {
  std::unique_lock<std::mutex> lock;
  if (companion) lock = std::unique_lock<std::mutex>(companion->deskLock());
  ((*installer_).*step)();
  if (companion) (companion->*then)();
}

bool ServeService::run(const ServeHooks& hooks, DeskCompanion* companion) {
  while (true) {
    if (hooks.stopRequested && hooks.stopRequested()) return true;
    if (hooks.reloadRequested && hooks.reloadRequested()) reload(companion);
    onDesk(companion, &HeadlessInstaller::tick, &DeskCompanion::afterTick);
    if (run_.count != 0 && installer_->finished() >= run_.count) return false;
    hooks.wait();
  }
}

bool ServeService::finish(bool stoppedByRequest) {
  // The last routers' commands get their bounded time to end.
  if (finishCommand_) finishCommand_->stop(FinishCommand::kDefaultStopWaitMs);
  if (!run_.noSave) {
    if (options_.pool) settings_.writeString(kPoolSettingsValue, options_.pool->rememberedText());
    remembered_.save(settings_);
    sets_.saveSets(settings_);
  }
  app::logLine() << "serve: " << installer_->succeeded() << " installed, " << installer_->failed() << " failed";
  // Told to stop, the server did what it was told: a clean end. A counted
  // run reports whether its routers succeeded.
  return stoppedByRequest || installer_->failed() == 0;
}

}  // namespace tarnlift::install
