#include "ui/main_presenter.h"

#include <algorithm>
#include <cstdio>

#include "app/log.h"
#include "app/version.h"
#include "install/install_datagram.h"
#include "net/address.h"
#include "netboot/netboot_settings.h"
#include "install/after_install.h"
#include "install/control_rules.h"
#include "install/router_actions.h"

namespace tarnlift::ui {
namespace {

// The position a minimised window reports.
constexpr int kMinimisedPosition = -32000;


std::string selectedText(size_t count) {
  char text[64];
  std::snprintf(text, sizeof text, kSelectedPackagesFormat, static_cast<int>(count));
  return text;
}

void showStartupMessage(const std::string& text, const std::string& caption, void* context) {
  auto* view = static_cast<MainView*>(context);
  view->showMessage(text, caption, caption == netboot::kCaptionTip ? MessageIcon::Information : MessageIcon::Error);
}

}  // namespace

MainPresenter::MainPresenter(MainView& view, MainWorkers& workers, app::StartupOptions options,
                             std::shared_ptr<app::SettingsStore> store)
    : view_(view), workers_(workers), options_(std::move(options)), store_(std::move(store)) {}

MainPresenter::~MainPresenter() { catalogue_.setView(nullptr); }

// ---- construction ----------------------------------------------------------

void MainPresenter::construct() {
  // The one reading of the environment about a compatibility layer: it
  // decides the local drives offered (step 1) and the gateway tip (step 2).
  std::string loader;
  const bool underCompatibilityLayer = workers_.environment("WINELOADER", loader);

  // 1. The workers, in the order the window needs them.
  routers_ = &workers_.startRouterInstaller();
  drives_ = &workers_.makeDriveInstaller(underCompatibilityLayer);
  netboot_ = &workers_.startNetbootServer(options_.kernelOverride);
  desk_ = std::make_unique<install::InstallDesk>(*routers_, *drives_, sets_, remembered_, workers_.clock());
  desk_->setBeacon([this] {
    if (beaconOn_) workers_.beacon().send();
  });

  // 2. Under the compatibility layer only a tip differs.
  underWineApplication_ = underCompatibilityLayer && loader.find("Application") != std::string::npos;
  netboot::setRunningUnderWine(underWineApplication_);

  // 3. Title and icon.
  view_.setTitle(std::string(kTitlePrefix) + "v" + app::kVersionWords);
  view_.setIcon();

  // 4. Timer, progress range, status bar; the router table is the desk's.
  view_.startTimer(kTimerMillis);
  view_.setProgressRange(100);
  view_.createStatusBar();

  // 5. The controls start empty; the initial size is the dialog's own.
  refreshControlState();
  WindowRect initial = view_.windowRect();
  initialWidth_ = initial.width();
  initialHeight_ = initial.height();
  limits_ = {initialWidth_, initialHeight_, initialWidth_};
  view_.clipPackagesGroup();

  // 6. Placement.
  settings_.openRoot(app::kSettingsKeyPath, app::kFullAccess, store_);
  readPlacement();

  // 7. The two drop-down lists.
  for (const char* item : kBaudItems) view_.addItem(kIdBaud, item);
  for (const char* item : kAutoRebootItems) view_.addItem(kIdAutoReboot, item);
  view_.selectItem(kIdAutoReboot, kAutoRebootItems[0]);

  // 8. Network booting.
  netboot::NetbootSettings netboot = netboot::readNetbootSettings(settings_);
  netbootEnabled_ = netboot.enabled;
  clientAddress_ = netboot.clientAddress;

  // 9. Show the window where it belongs.
  view_.moveWindow(placeLeft_, placeTop_, initialWidth_, placeHeight_);
  view_.showWindow();

  // 10. Saved package sets.
  if (!options_.currentDirectory) {
    sets_.loadSets(settings_);
    listSets();
  }

  // 11. Remembered defaults and the beacon.
  remembered_.load(settings_);
  beaconOn_ = settings_.readBool("Force Inst", false);
  workers_.beacon().setOn(beaconOn_);

  // 12. The package directory.
  std::string directory = workers_.currentDirectory();
  if (!options_.currentDirectory) directory = settings_.readString("Package Path", directory);
  catalogue_.setView(this);
  catalogue_.setFolder(directory, 0);
  desk_->setPackageDir(directory);
  view_.setText(kIdPackageDir, directory);

  // 13. Local drives.
  desk_->addDrives();
  refreshRouterList();

  // 14. Network booting as it was left.
  if (netbootEnabled_) {
    netboot_->changeSettings(true, clientAddress_);
    netboot::startupInterfaceCheck(clientAddress_, &showStartupMessage, &view_, workers_.interfaces());
  }
  refreshControlState();
  refreshPackageMarks();
}

void MainPresenter::readPlacement() {
  int left = static_cast<int32_t>(settings_.readInt("Rect X", 20));
  int top = static_cast<int32_t>(settings_.readInt("Rect Y", 20));
  int height = static_cast<int32_t>(settings_.readInt("Rect H", static_cast<uint32_t>(initialHeight_)));
  ScreenSize screen = view_.screenSize();
  int savedWidth = static_cast<int32_t>(settings_.readInt("Screen X", 0));
  int savedHeight = static_cast<int32_t>(settings_.readInt("Screen Y", 0));
  if (screen.width < savedWidth || screen.height < savedHeight) {
    // Saved on a larger screen: pull the window fully onto this one.
    if (height > screen.height) height = screen.height;
    if (top + height > screen.height) top = screen.height - height;
    if (left + initialWidth_ > screen.width) left = screen.width - initialWidth_;
    top = std::max(top, 0);
    left = std::max(left, 0);
  }
  placeLeft_ = left;
  placeTop_ = top;
  placeHeight_ = height;
}

// ---- settings --------------------------------------------------------------

void MainPresenter::saveSettings() {
  if (!settings_.isOpen()) settings_.openRoot(app::kSettingsKeyPath, app::kFullAccess, store_);
  WindowRect rect = view_.windowRect();
  app::logLine() << "l: " << rect.left << ", t: " << rect.top;
  if (rect.left != kMinimisedPosition && rect.top != kMinimisedPosition) {
    settings_.writeInt("Rect X", static_cast<uint32_t>(rect.left));
    settings_.writeInt("Rect Y", static_cast<uint32_t>(rect.top));
    settings_.writeInt("Rect H", static_cast<uint32_t>(rect.height()));
  }
  ScreenSize screen = view_.screenSize();
  settings_.writeInt("Screen X", static_cast<uint32_t>(screen.width));
  settings_.writeInt("Screen Y", static_cast<uint32_t>(screen.height));
  settings_.writeString("Package Path", catalogue_.folder());
  remembered_.save(settings_);
  settings_.writeBool("Force Inst", beaconOn_);
  netboot::writeNetbootSettings(settings_, {netbootEnabled_, clientAddress_});
  sets_.saveSets(settings_);
}

void MainPresenter::onClose() {
  app::logLine() << "wm_close";
  saveSettings();
  view_.stopTimer();
  view_.quitProcess(0);
}

void MainPresenter::tearDown() {
  saveSettings();
  // The lists and the status bar go before the threads are stopped, so
  // nothing is drawn into them while the threads wind down.
  view_.destroyLists();
  workers_.stopThreads();
}

// ---- selection -------------------------------------------------------------

install::RouterRecord* MainPresenter::selectedRouter() {
  if (!desk_) return nullptr;
  // Reads the list's selection only: asking which router is shown must not
  // change the table.
  int row = view_.selectedRouterRow();
  if (row < 0 || static_cast<size_t>(row) >= routerOrder_.size()) return nullptr;
  install::RouterRow* found = desk_->table().find(routerOrder_[static_cast<size_t>(row)]);
  return found != nullptr ? &found->record : nullptr;
}

packages::PackageChoice MainPresenter::choiceOf(const install::RouterRecord& record) const {
  return {record.setName, record.packageDir, record.files};
}

void MainPresenter::storeChoice(install::RouterRecord& record, const packages::PackageChoice& choice) {
  record.setName = choice.setName;
  record.packageDir = choice.folder;
  record.files = choice.files;
}

// ---- the lists -------------------------------------------------------------

void MainPresenter::refreshRouterList() {
  if (!desk_) return;
  net::MacAddress keep{};
  bool haveKeep = false;
  int row = view_.selectedRouterRow();
  if (row >= 0 && static_cast<size_t>(row) < routerOrder_.size()) {
    keep = routerOrder_[static_cast<size_t>(row)];
    haveKeep = true;
  }
  // Rows in the table's order: routers by MAC, then the drives (their MACs
  // start with five all-ones bytes).
  std::vector<RouterListRow> rows;
  routerOrder_.clear();
  int selectedRow = -1;
  for (const auto& [mac, tableRow] : desk_->table().rows()) {
    if (haveKeep && mac == keep) selectedRow = static_cast<int>(rows.size());
    rows.push_back({tableRow.labelCell, tableRow.macCell, tableRow.statusCell, tableRow.architectureCell,
                    tableRow.image});
    routerOrder_.push_back(mac);
  }
  view_.setRouterRows(rows, selectedRow);
}

void MainPresenter::rowsCleared() { view_.clearPackageRows(); }
void MainPresenter::rowAdded(size_t index, const packages::PackageRow& row) { view_.addPackageRow(index, row); }
void MainPresenter::rowChanged(size_t index, const packages::PackageRow& row) { view_.updatePackageRow(index, row); }

void MainPresenter::refreshPackageMarks() {
  install::RouterRecord* r = selectedRouter();
  if (r == nullptr) {
    catalogue_.clearSelectionView();
    return;
  }
  if (r->status == install::kStatusReady) {
    catalogue_.applySelection(r->files);
  } else {
    catalogue_.applyBusySelection(r->files);
  }
}

// ---- control state -----------------------------------------------------------

void MainPresenter::refreshControlState() {
  install::RouterRecord* r = selectedRouter();
  if (r != nullptr && install::showRouterPackages(catalogue_, *r)) view_.setText(kIdPackageDir, r->packageDir);
  if (r != nullptr) {
    shownRouter_ = r->mac;
    haveShownRouter_ = true;
  } else {
    haveShownRouter_ = false;
  }
  std::string setName = r != nullptr && sets_.contains(r->setName) ? r->setName : std::string();
  const install::ControlRules c = install::controlRulesFor(r, !setName.empty());

  // The set list shows the router's own set, when it still exists.
  view_.setEnabled(kIdSets, c.sets);
  view_.selectItem(kIdSets, setName);

  view_.setText(kIdAddress, r != nullptr ? net::formatIpv4OrEmpty(r->address) : "");
  view_.setText(kIdNetmask, r != nullptr && r->netmaskBits != 0 ? std::to_string(r->netmaskBits) : "");
  view_.setText(kIdGateway, r != nullptr ? net::formatIpv4OrEmpty(r->gateway) : "");
  for (int id : {kIdAddress, kIdNetmask, kIdGateway}) view_.setReadOnly(id, !c.addressFields);

  view_.setEnabled(kIdKeepConfig, c.keepConfig);
  view_.setChecked(kIdKeepConfig, r != nullptr && r->keepConfig);

  view_.setEnabled(kIdBaud, c.baud);
  view_.selectItem(kIdBaud, r != nullptr && r->baudRate != 0 ? std::to_string(r->baudRate) : "");

  view_.setEnabled(kIdKeepBranding, c.keepBranding);
  view_.setChecked(kIdKeepBranding, r != nullptr && r->keepBranding);

  view_.setEnabled(kIdDefaultConfig, c.defaultConfig);
  view_.setChecked(kIdDefaultConfig, r != nullptr && r->defaultConfig);

  view_.setEnabled(kIdScript, c.script);
  view_.setChecked(kIdScript, r != nullptr && r->scriptEnabled);
  view_.setEnabled(kIdScriptPath, c.scriptPath);
  view_.setEnabled(kIdScriptBrowse, c.scriptPath);
  view_.setText(kIdScriptPath, r != nullptr ? r->scriptPath : "");

  view_.setEnabled(kIdModeScript, c.modeScript);
  view_.setChecked(kIdModeScript, r != nullptr && r->modeScriptEnabled);
  view_.setEnabled(kIdModeScriptPath, c.modeScriptPath);
  view_.setEnabled(kIdModeScriptBrowse, c.modeScriptPath);
  view_.setText(kIdModeScriptPath, r != nullptr ? r->modeScriptPath : "");

  updateCaptionAndProgress();

  view_.setEnabled(kIdShutdown, c.shutdown);
  view_.setEnabled(kIdReboot, c.reboot);
  view_.setEnabled(kIdInstall, c.install);
  view_.setEnabled(kIdCancel, c.cancel);

  view_.setEnabled(kIdSaveSet, c.saveSet);
  view_.setEnabled(kIdDeleteSet, c.deleteSet);
  view_.setEnabled(kIdSelectAll, c.selectAll);
  view_.setEnabled(kIdSelectNone, c.selectNone);
}

void MainPresenter::updateCaptionAndProgress() {
  // The router whose values the controls show (the selected one as of the
  // last refresh).
  install::RouterRow* shown = desk_ && haveShownRouter_ ? desk_->table().find(shownRouter_) : nullptr;
  install::RouterRecord* r = shown != nullptr ? &shown->record : nullptr;
  std::string caption;
  if (r != nullptr) caption = r->status == install::kStatusReady ? selectedText(r->files.size()) : r->statusText;
  view_.setText(kIdCaption, caption);
  // The bar moves by the difference to what it shows.
  int percent = r != nullptr ? static_cast<int>(r->percentDone()) : 0;
  if (percent != lastPercent_) view_.moveProgress(percent - lastPercent_);
  lastPercent_ = percent;
}

// ---- commands --------------------------------------------------------------

void MainPresenter::onCommand(int id, int notifyCode) {
  if (!desk_) return;
  if (id == kIdSets && notifyCode == kNotifySelChange) {
    chooseSet();
  } else if (id == kIdBaud && notifyCode == kNotifySelChange) {
    baudChanged();
  } else if (id == kIdPackageDir && notifyCode == kNotifyKillFocus) {
    packageDirChanged();
  } else if (notifyCode == kNotifyClicked && ((id >= kIdBrowse && id <= kIdModeScriptBrowse) || id == kIdLoadInventory)) {
    command(id);
  }
}

void MainPresenter::command(int id) {
  switch (id) {
    case kIdBrowse:
      browsePackageDir();
      return;
    case kIdSaveSet:
      saveSet();
      return;
    case kIdDeleteSet:
      deleteSet();
      return;
    case kIdSelectAll:
      selectAll(true);
      return;
    case kIdSelectNone:
      selectAll(false);
      return;
    case kIdNetBooting:
      netBooting();
      return;
    case kIdHelp:
      view_.showHelp();
      return;
    case kIdLoadInventory:
      loadInventory();
      return;
    case kIdBeacon:
      beaconOn_ = view_.isChecked(kIdBeacon);
      workers_.beacon().setOn(beaconOn_);
      return;
    default:
      break;
  }
  install::RouterRecord* r = selectedRouter();
  if (r == nullptr) return;
  switch (id) {
    case kIdReboot:
      rebootOrShutdown(true);
      return;
    case kIdShutdown:
      rebootOrShutdown(false);
      return;
    case kIdInstall:
      install();
      return;
    case kIdCancel:
      cancel();
      return;
    case kIdKeepConfig:
      r->keepConfig = view_.isChecked(kIdKeepConfig);
      break;
    case kIdScript:
      takeFieldsInto(*r);
      r->scriptEnabled = view_.isChecked(kIdScript);
      r->scriptPath = view_.text(kIdScriptPath);
      break;
    case kIdScriptBrowse:
      chooseScript(false);
      return;
    case kIdDefaultConfig:
      r->defaultConfig = view_.isChecked(kIdDefaultConfig);
      break;
    case kIdKeepBranding:
      r->keepBranding = view_.isChecked(kIdKeepBranding);
      break;
    case kIdModeScript:
      r->modeScriptEnabled = view_.isChecked(kIdModeScript);
      r->modeScriptPath = view_.text(kIdModeScriptPath);
      break;
    case kIdModeScriptBrowse:
      chooseScript(true);
      return;
    default:
      return;  // not a command of ours
  }
  refreshControlState();
}

// The controls' text becomes the install choices here, once, by the
// controls' own readings.
install::InstallChoices MainPresenter::choicesShown() {
  install::InstallChoices c;
  c.keepConfig = view_.isChecked(kIdKeepConfig);
  c.address = install::addressFromText(view_.text(kIdAddress));
  c.netmaskBits = install::netmaskBitsFromText(view_.text(kIdNetmask));
  c.gateway = install::addressFromText(view_.text(kIdGateway));
  c.defaultConfig = view_.isChecked(kIdDefaultConfig);
  c.keepBranding = view_.isChecked(kIdKeepBranding);
  c.scriptEnabled = view_.isChecked(kIdScript);
  c.scriptPath = view_.text(kIdScriptPath);
  c.modeScriptEnabled = view_.isChecked(kIdModeScript);
  c.modeScriptPath = view_.text(kIdModeScriptPath);
  c.baudRate = install::baudFromText(view_.selectedText(kIdBaud));
  return c;
}

void MainPresenter::takeFieldsInto(install::RouterRecord& record) {
  const install::InstallChoices shown = choicesShown();
  record.address = shown.address;
  record.netmaskBits = shown.netmaskBits;
  record.gateway = shown.gateway;
}

void MainPresenter::browsePackageDir() {
  if (!catalogue_.browseFolder(view_.folderBrowser())) return;
  view_.setText(kIdPackageDir, catalogue_.folder());
  handDirectoryToTable(catalogue_.folder());
  refreshPackageMarks();
  refreshControlState();
}

void MainPresenter::packageDirChanged() {
  std::string text = view_.text(kIdPackageDir);
  if (text == catalogue_.folder()) return;
  install::RouterRecord* r = selectedRouter();
  catalogue_.setFolder(text, r != nullptr ? r->architecture : 0);
  handDirectoryToTable(text);
  refreshPackageMarks();
  refreshControlState();
}

void MainPresenter::handDirectoryToTable(const std::string& dir) {
  // New routers without a previous installation start in this folder; the
  // selected router (when it can still change) moves to it, and a choice
  // made in another folder does not carry over.
  desk_->setPackageDir(dir);
  install::RouterRecord* r = selectedRouter();
  if (r == nullptr || r->status != install::kStatusReady || r->packageDir == dir) return;
  r->packageDir = dir;
  r->files.clear();
  r->setName.clear();
}

void MainPresenter::onFilesDropped(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) {
    app::logLine() << "drop file: " << path;
    if (!workers_.isDirectory(path)) continue;
    view_.setText(kIdPackageDir, path);
    packageDirChanged();
  }
}

void MainPresenter::showError(const std::string& text) { view_.showMessage(text, "Error", MessageIcon::Error); }

bool MainPresenter::askSetName(std::string& name) { return view_.askSetName(name); }

void MainPresenter::showMessage(const std::string& text, const std::string& title, bool errorIcon) {
  view_.showMessage(text, title, errorIcon ? MessageIcon::Error : MessageIcon::Warning);
}

bool MainPresenter::askYesNo(const std::string& text) { return view_.askYesNo(text); }

void MainPresenter::saveSet() {
  install::RouterRecord* r = selectedRouter();
  packages::PackageChoice choice;
  if (r != nullptr) choice = choiceOf(*r);
  if (!sets_.saveSet(choice, *this)) return;
  if (r != nullptr) storeChoice(*r, choice);
  listSets();
  refreshControlState();
}

void MainPresenter::listSets() {
  for (const std::string& name : sets_.names()) {
    if (listedSets_.insert(name).second) view_.addItem(kIdSets, name);
  }
}

void MainPresenter::deleteSet() {
  std::string name = view_.selectedText(kIdSets);
  if (name.empty()) return;
  sets_.deleteSet(name, &settings_);
  view_.selectItem(kIdSets, "");
  view_.removeItem(kIdSets, name);
  listedSets_.erase(name);
  std::vector<net::MacAddress> macs;
  for (const auto& entry : desk_->table().rows()) macs.push_back(entry.first);
  for (const net::MacAddress& mac : macs) {
    install::RouterRow* row = desk_->table().find(mac);
    if (row->record.setName == name) row->record.setName.clear();
  }
  refreshControlState();
}

void MainPresenter::chooseSet() {
  install::RouterRecord* r = selectedRouter();
  if (r == nullptr) return;
  packages::PackageChoice choice = choiceOf(*r);
  sets_.chooseSet(choice, view_.selectedText(kIdSets));
  storeChoice(*r, choice);
  refreshControlState();
  refreshPackageMarks();
}

void MainPresenter::baudChanged() {
  install::RouterRecord* r = selectedRouter();
  if (r == nullptr) return;
  r->baudRate = install::baudFromText(view_.selectedText(kIdBaud));
  app::logLine() << "baud: " << r->baudRate;
}

void MainPresenter::selectAll(bool all) {
  install::RouterRecord* r = selectedRouter();
  if (r == nullptr) return;
  install::selectAllOf(catalogue_, *r, all);
  refreshControlState();
}

void MainPresenter::rebootOrShutdown(bool reboot) {
  install::RouterRecord* r = selectedRouter();
  if (r == nullptr || r->kind != install::kKindRouter) return;
  install::rebootOrShutdownRow(*desk_, *r, reboot);
  refreshRouterList();
  refreshControlState();
  refreshPackageMarks();
}

void MainPresenter::install() {
  install::RouterRecord* r = selectedRouter();
  if (r == nullptr) return;
  if (view_.isChecked(kIdScript) && !workers_.fileExists(view_.text(kIdScriptPath))) {
    view_.showMessage(kNoConfigScriptText, "Error", MessageIcon::Error);
    return;
  }
  if (view_.isChecked(kIdModeScript) && !workers_.fileExists(view_.text(kIdModeScriptPath))) {
    view_.showMessage(kNoModeScriptText, "Error", MessageIcon::Error);
    return;
  }
  if (r->status != install::kStatusReady) return;
  install::InstallOutcome outcome =
      install::installRow(*desk_, catalogue_, sets_, remembered_, *this, *r, choicesShown());
  // The install may have made "Previous Install".
  listSets();
  if (outcome == install::InstallOutcome::Started) refreshRouterList();
  refreshControlState();
  refreshPackageMarks();
}

void MainPresenter::cancel() {
  install::RouterRecord* r = selectedRouter();
  if (r == nullptr) return;
  install::cancelRow(*desk_, remembered_, *r);
  refreshRouterList();
  refreshControlState();
  refreshPackageMarks();
}

void MainPresenter::netBooting() {
  bool enabled = netbootEnabled_;
  uint32_t address = clientAddress_;
  if (!view_.askNetbootSettings(enabled, address)) return;
  netbootEnabled_ = enabled;
  clientAddress_ = address;
  // Kept at once: the installer's transport looks for the interface that
  // reaches the saved client address whenever it opens.
  netboot::writeNetbootSettings(settings_, {enabled, address});
  netboot_->changeSettings(enabled, address);
}

void MainPresenter::chooseScript(bool mode) {
  install::RouterRecord* r = selectedRouter();
  if (r == nullptr) return;
  std::string path;
  if (!view_.chooseScriptFile(path)) return;
  app::logLine() << "selected: " << path;
  if (mode) {
    r->modeScriptPath = path;
  } else {
    r->scriptPath = path;
  }
  refreshControlState();
}

void MainPresenter::loadInventory() {
  std::string path;
  if (!view_.chooseInventoryFile(path)) return;
  std::string error;
  if (!inventory_.load(path, sets_, error)) {
    // The whole file is refused: no router takes anything from it.
    app::logLine() << "inventory refused: " << error;
    view_.showMessage(error, "Error", MessageIcon::Error);
    return;
  }
  app::logLine() << "inventory " << path << " lists " << inventory_.size() << " routers";
  // The routers listed already take their sections now, the others when
  // they appear.
  for (const net::MacAddress& mac : routerOrder_) applyInventory(mac);
  refreshControlState();
  refreshPackageMarks();
}

void MainPresenter::applyInventory(const net::MacAddress& mac) {
  if (!inventory_.loaded()) return;
  install::RouterRow* row = desk_->table().find(mac);
  if (row == nullptr) return;
  std::vector<std::string> notListed;
  if (!inventory_.applyTo(row->record, desk_->packageDir(), sets_, notListed)) return;
  const install::InventoryEntry* entry = inventory_.find(mac);
  app::logLine() << "router " << install::macText(mac) << " takes its options from the inventory"
                 << (entry->label ? " (\"" + *entry->label + "\")" : std::string());
  for (const std::string& name : notListed) {
    app::logLine() << "inventory: " << name << " is not listed for "
                   << install::architectureText(row->record.architecture);
  }
}

// The inventory's `after` for its routers, the "Auto reboot" list for the
// others.
install::AfterInstall MainPresenter::afterInstallFor(const net::MacAddress& mac) {
  return install::chooseAfterInstall(inventory_.afterFor(mac), std::nullopt, autoRebootChoice());
}

// ---- notifications ---------------------------------------------------------

void MainPresenter::onRouterItemChanging() {
  view_.postPrivate(kRefreshCode);
  install::RouterRecord* r = selectedRouter();
  if (r == nullptr || !haveShownRouter_ || r->mac != shownRouter_) return;
  app::logLine() << "changing " << r->label;
  takeFieldsInto(*r);
  r->scriptPath = view_.text(kIdScriptPath);
  r->modeScriptPath = view_.text(kIdModeScriptPath);
}

void MainPresenter::onPackageKey(int virtualKey) {
  view_.postPrivate(kPackageHintCode);
  if (virtualKey == kSpaceKey) togglePackage(view_.nextPackageItem());
}

void MainPresenter::onPackageClick(int index) {
  if (index < 0) return;
  togglePackage(index);
  showPackageDescription(index);
}

void MainPresenter::togglePackage(int index) {
  install::RouterRecord* r = selectedRouter();
  if (r == nullptr || index < 0 || static_cast<size_t>(index) >= catalogue_.size()) return;
  if (!install::togglePackageOf(catalogue_, *r, static_cast<size_t>(index))) return;
  refreshControlState();
}

void MainPresenter::showPackageDescription(int index) {
  if (index < 0 || static_cast<size_t>(index) >= catalogue_.size()) return;
  std::string text = catalogue_.describeDependencies(static_cast<size_t>(index));
  app::logLine() << text;
  view_.setStatusText(text);
}

void MainPresenter::describeSelectedDrive() {
  install::RouterRecord* r = selectedRouter();
  if (r == nullptr || r->kind != install::kKindDrive || r->driveDescription.empty()) {
    haveDescribedDrive_ = false;
    return;
  }
  if (haveDescribedDrive_ && describedDrive_ == r->mac) return;
  haveDescribedDrive_ = true;
  describedDrive_ = r->mac;
  view_.setStatusText(r->label + " is " + r->driveDescription + ": Install erases the whole disk");
}

void MainPresenter::onPrivateMessage(uint32_t code) {
  if (!desk_) return;
  if (code == kRefreshCode) {
    refreshControlState();
    refreshPackageMarks();
    describeSelectedDrive();
  } else if (code == kPackageHintCode) {
    showPackageDescription(view_.nextPackageItem());
  }
}

// ---- the tick --------------------------------------------------------------

install::AfterInstall MainPresenter::autoRebootChoice() {
  switch (view_.selectedIndex(kIdAutoReboot)) {
    case 0:
      return install::AfterInstall::Reboot;
    case 1:
      return install::AfterInstall::Shutdown;
    default:
      return install::AfterInstall::None;
  }
}

void MainPresenter::onTimer() {
  if (!desk_) return;
  install::InstallDesk::TickResult tick = desk_->tick();
  // Another boot server answering our clients is the commonest reason a
  // router does not boot from us: say so where the window's status lines go.
  std::string notice;
  if (netboot_->otherServerNotice(otherServerNoticesSeen_, notice)) view_.setStatusText(notice);
  for (const net::MacAddress& mac : tick.added) applyInventory(mac);
  if (tick.tableChanged) {
    refreshRouterList();
    refreshControlState();
    refreshPackageMarks();
  }

  const std::vector<install::DeskNews>& news = tick.news;
  if (news.empty()) return;
  install::RouterRecord* selected = selectedRouter();
  net::MacAddress selectedMac = selected != nullptr ? selected->mac : net::MacAddress{};
  bool gone = false;
  bool selectedChanged = false;
  for (const install::DeskNews& n : news) {
    if (!n.hadNews) gone = true;
    if (n.hadNews && selected != nullptr && n.mac == selectedMac && n.status.status != n.previousStatus) {
      selectedChanged = true;
    }
  }
  refreshRouterList();
  if (gone || selectedChanged) {
    refreshControlState();
    refreshPackageMarks();
  }
  for (const install::DeskNews& n : news) {
    if (!n.hadNews) continue;
    if (selected == nullptr || n.mac != selectedMac) {
      // A router the inventory gives an `after` is rebooted (or shut down)
      // as it says, selected or not.
      std::optional<install::AfterInstall> listed = inventory_.afterFor(n.mac);
      if (listed) desk_->actAfterInstallOnce(n, *listed);
      continue;
    }
    uint32_t status = n.status.status;
    if (status == install::kStatusDone || status == install::kStatusFailed) continue;
    updateCaptionAndProgress();
    view_.setEnabled(kIdInstall, false);
    if (status != install::kStatusWaitingReboot) continue;
    install::AfterInstall after = afterInstallFor(n.mac);
    if (after == install::AfterInstall::None) {
      view_.setEnabled(kIdShutdown, true);
      view_.setEnabled(kIdReboot, true);
    } else {
      desk_->actAfterInstallOnce(n, after);
    }
  }
}

}  // namespace tarnlift::ui
