// The main window's rules without a toolkit: construction, the commands and
// notifications, the 250 ms tick, the state of every control, the settings
// read at start and written at close. The Win32 dialog forwards its
// messages here and implements MainView; the workers come from a
// MainWorkers factory so that tests run the presenter with fakes.
//
// How the Win32 dialog drives it:
//   WM_INITDIALOG        -> construct()           (after the dialog exists)
//   WM_COMMAND           -> onCommand(LOWORD(wParam), HIWORD(wParam))
//   LVN_ITEMCHANGING on 1002 -> onRouterItemChanging()
//   LVN_KEYDOWN on 1001  -> onPackageKey(virtual key)
//   NM_CLICK on 1001     -> onPackageClick(item index, -1 for none)
//   WM_USER              -> onPrivateMessage(wParam)
//   WM_TIMER             -> onTimer()
//   WM_DROPFILES         -> onFilesDropped(paths)
//   WM_GETMINMAXINFO     -> trackingLimits()
//   WM_CLOSE             -> onClose()            (does not return)
//   loop ended otherwise -> tearDown()
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "app/clock.h"
#include "app/registry.h"
#include "app/settings_store.h"
#include "app/startup.h"
#include "install/desk.h"
#include "install/install_command.h"
#include "netboot/interfaces.h"
#include "packages/package_catalogue.h"
#include "packages/package_sets.h"
#include "ui/main_ids.h"
#include "ui/main_view.h"
#include "install/loaded_inventory.h"

namespace tarnlift::ui {

// The "PXE Booter" thread as the window uses it.
class NetbootWorker {
 public:
  virtual ~NetbootWorker() = default;
  // Hands the switch and client address to the server: waits up to 5000 ms
  // for the thread to be ready; no request queue by then is fatal
  // ("no code!!!").
  virtual void changeSettings(bool enabled, uint32_t clientAddress) = 0;
  // The newest "another boot server answered ..." line when there is one
  // newer than `seen` (which it then advances); false otherwise.
  virtual bool otherServerNotice(uint64_t& seen, std::string& line) = 0;
};

// The beacon "you have to etherboot".
class BeaconWorker {
 public:
  virtual ~BeaconWorker() = default;
  virtual void setOn(bool on) = 0;
  // Sends once if the beacon exists.
  virtual void send() = 0;
};

// Creates and starts the workers in the order the window needs them, and
// answers the few questions about the machine.
class MainWorkers {
 public:
  virtual ~MainWorkers() = default;
  // Creates and starts the "Router installer" thread.
  virtual install::RouterInstaller& startRouterInstaller() = 0;
  // Creates the local-drive installer holder; under a compatibility layer
  // (the environment has WINELOADER) it offers no drives.
  virtual install::DriveInstaller& makeDriveInstaller(bool underCompatibilityLayer) = 0;
  // Creates and starts the "PXE Booter" with the start-up text.
  virtual NetbootWorker& startNetbootServer(const std::string& kernelOverride) = 0;
  virtual BeaconWorker& beacon() = 0;
  virtual const app::Clock& clock() = 0;
  virtual netboot::InterfaceSource& interfaces() = 0;
  // An environment variable; false when it does not exist.
  virtual bool environment(const std::string& name, std::string& value) = 0;
  virtual std::string currentDirectory() = 0;
  virtual bool fileExists(const std::string& path) = 0;
  virtual bool isDirectory(const std::string& path) = 0;
  // Stops the two threads (teardown only).
  virtual void stopThreads() = 0;
};

struct TrackingLimits {
  int minWidth = 0;
  int minHeight = 0;
  int maxWidth = 0;
};

class MainPresenter : private packages::PackageListView,
                      private packages::PackageSetPrompts,
                      private install::InstallPrompter {
 public:
  // store: the settings store to read and write (nullptr: the default one).
  MainPresenter(MainView& view, MainWorkers& workers, app::StartupOptions options,
                std::shared_ptr<app::SettingsStore> store = nullptr);
  ~MainPresenter() override;
  MainPresenter(const MainPresenter&) = delete;
  MainPresenter& operator=(const MainPresenter&) = delete;

  // Construction steps after the dialog exists: workers, title, timer,
  // settings, lists, drives, network booting.
  void construct();

  void onCommand(int id, int notifyCode);
  void onRouterItemChanging();
  void onPackageKey(int virtualKey);
  void onPackageClick(int index);
  void onPrivateMessage(uint32_t code);
  void onTimer();
  void onFilesDropped(const std::vector<std::string>& paths);
  TrackingLimits trackingLimits() const { return limits_; }
  // Logs "wm_close", saves the settings, stops the timer and ends the
  // process with exit code 0 through the view.
  void onClose();
  // Saves the settings and stops the threads (the loop ended otherwise).
  void tearDown();

  // Recomputes every control from the selected router.
  void refreshControlState();
  void refreshPackageMarks();
  // Shows the router table's rows again, keeping the selected one.
  void refreshRouterList();
  // Adds the names of the sets not listed yet to the set list.
  void listSets();
  void saveSettings();

  // For tests and the view.
  install::RouterTable& table() { return desk_->table(); }
  install::InstallDesk& desk() { return *desk_; }
  packages::PackageCatalogue& catalogue() { return catalogue_; }
  packages::PackageSets& sets() { return sets_; }
  install::RememberedChoices& remembered() { return remembered_; }
  const install::LoadedInventory& inventory() const { return inventory_; }
  install::RouterRecord* selectedRouter();
  bool netbootEnabled() const { return netbootEnabled_; }
  uint32_t clientAddress() const { return clientAddress_; }
  bool beaconOn() const { return beaconOn_; }
  int lastPercent() const { return lastPercent_; }
  // The rows as last shown, in display order (their MACs).
  const std::vector<net::MacAddress>& routerOrder() const { return routerOrder_; }

 private:
  // packages::PackageListView
  void rowsCleared() override;
  void rowAdded(size_t index, const packages::PackageRow& row) override;
  void rowChanged(size_t index, const packages::PackageRow& row) override;
  // packages::PackageSetPrompts
  void showError(const std::string& text) override;
  bool askSetName(std::string& name) override;
  // InstallPrompter
  void showMessage(const std::string& text, const std::string& title, bool errorIcon) override;
  bool askYesNo(const std::string& text) override;

  void command(int id);
  void browsePackageDir();
  void packageDirChanged();
  void handDirectoryToTable(const std::string& dir);
  void saveSet();
  void deleteSet();
  void chooseSet();
  void baudChanged();
  void selectAll(bool all);
  void rebootOrShutdown(bool reboot);
  void install();
  void cancel();
  void netBooting();
  void takeFieldsInto(install::RouterRecord& record);
  install::InstallChoices choicesShown();
  void chooseScript(bool mode);
  void loadInventory();
  void applyInventory(const net::MacAddress& mac);
  install::AfterInstall afterInstallFor(const net::MacAddress& mac);
  void togglePackage(int index);
  void showPackageDescription(int index);
  // A newly selected drive's disk (number, size, model) in the status bar:
  // the row's label cell is too narrow to show it whole.
  void describeSelectedDrive();
  void updateCaptionAndProgress();
  void tick();
  void readPlacement();
  packages::PackageChoice choiceOf(const install::RouterRecord& record) const;
  void storeChoice(install::RouterRecord& record, const packages::PackageChoice& choice);
  install::AfterInstall autoRebootChoice();

  MainView& view_;
  MainWorkers& workers_;
  app::StartupOptions options_;
  std::shared_ptr<app::SettingsStore> store_;
  app::Registry settings_;
  install::RouterInstaller* routers_ = nullptr;
  install::DriveInstaller* drives_ = nullptr;
  NetbootWorker* netboot_ = nullptr;
  std::unique_ptr<install::InstallDesk> desk_;
  packages::PackageCatalogue catalogue_;
  packages::PackageSets sets_;
  install::RememberedChoices remembered_;
  bool netbootEnabled_ = false;
  uint32_t clientAddress_ = 0;
  bool beaconOn_ = false;
  bool underWineApplication_ = false;
  uint64_t otherServerNoticesSeen_ = 0;
  int lastPercent_ = 0;
  net::MacAddress shownRouter_{};
  bool haveShownRouter_ = false;
  // The drive whose disk the status bar names, so that it is named once per
  // selection.
  net::MacAddress describedDrive_{};
  bool haveDescribedDrive_ = false;
  std::vector<net::MacAddress> routerOrder_;
  TrackingLimits limits_;
  int initialWidth_ = 0;
  int initialHeight_ = 0;
  int placeLeft_ = 20;
  int placeTop_ = 20;
  int placeHeight_ = 0;
  std::set<std::string> listedSets_;
  install::LoadedInventory inventory_;
};

}  // namespace tarnlift::ui
