// A recording main window, fake workers and a settings store that logs
// every read and write, for the presenter's tests.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "app/settings_store.h"
#include "install/desk.h"
#include "tests/install/fake_desk_workers.h"
#include "tests/netboot/fake_interfaces.h"
#include "ui/main_presenter.h"

namespace tarnlift::ui::testing {

struct Box {
  std::string text;
  std::string caption;
  MessageIcon icon;
};

class FakeFolderBrowser : public packages::FolderBrowser {
 public:
  bool answer = false;
  std::string folder;
  int opened = 0;
  bool browse(const Request&, std::string& chosen) override {
    ++opened;
    if (answer) chosen = folder;
    return answer;
  }
};

class FakeView : public MainView {
 public:
  // Called when the view frees its lists (teardown).
  std::function<void()> onDestroyLists;
  // --- window ---
  std::string title;
  bool iconSet = false;
  uint32_t timerMillis = 0;
  bool timerRunning = false;
  bool statusBarCreated = false;
  bool clipped = false;
  WindowRect rect{0, 0, 700, 460};
  ScreenSize screen{1024, 768};
  WindowRect moved{};
  bool moveCalled = false;
  bool shown = false;
  std::vector<uint32_t> posted;
  int quitCode = -1;
  std::vector<std::string> calls;  // construction steps, in order

  void setTitle(const std::string& text) override {
    title = text;
    calls.push_back("title");
  }
  void setIcon() override {
    iconSet = true;
    calls.push_back("icon");
  }
  void startTimer(uint32_t ms) override {
    timerMillis = ms;
    timerRunning = true;
    calls.push_back("timer");
  }
  void stopTimer() override {
    timerRunning = false;
    calls.push_back("stop timer");
  }
  void createStatusBar() override {
    statusBarCreated = true;
    calls.push_back("status bar");
  }
  void destroyLists() override {
    calls.push_back("destroy lists");
    if (onDestroyLists) onDestroyLists();
  }
  void clipPackagesGroup() override {
    clipped = true;
    calls.push_back("clip");
  }
  WindowRect windowRect() override { return rect; }
  ScreenSize screenSize() override { return screen; }
  void moveWindow(int left, int top, int width, int height) override {
    moved = {left, top, left + width, top + height};
    moveCalled = true;
    calls.push_back("move");
  }
  void showWindow() override {
    shown = true;
    calls.push_back("show");
  }
  void postPrivate(uint32_t code) override { posted.push_back(code); }
  void quitProcess(int exitCode) override {
    quitCode = exitCode;
    calls.push_back("quit");
  }

  // --- controls ---
  std::map<int, std::string> texts;
  std::map<int, bool> enabled;
  std::map<int, bool> readOnly;
  std::map<int, bool> checked;
  void setText(int id, const std::string& t) override { texts[id] = t; }
  std::string text(int id) override { return texts[id]; }
  void setEnabled(int id, bool on) override { enabled[id] = on; }
  void setReadOnly(int id, bool on) override { readOnly[id] = on; }
  void setChecked(int id, bool on) override { checked[id] = on; }
  bool isChecked(int id) override { return checked[id]; }
  bool isEnabled(int id) { return enabled.count(id) != 0 && enabled[id]; }

  // --- lists (1010 is sorted, as the combo's style says) ---
  std::map<int, std::vector<std::string>> items;
  std::map<int, int> selection;
  void addItem(int id, const std::string& t) override {
    auto& list = items[id];
    if (id == kIdSets) {
      auto at = std::lower_bound(list.begin(), list.end(), t);
      int index = static_cast<int>(at - list.begin());
      list.insert(at, t);
      if (selection.count(id) && selection[id] >= index) ++selection[id];
    } else {
      list.push_back(t);
    }
  }
  void removeItem(int id, const std::string& t) override {
    auto& list = items[id];
    auto at = std::find(list.begin(), list.end(), t);
    if (at == list.end()) return;
    int index = static_cast<int>(at - list.begin());
    list.erase(at);
    if (selection[id] == index) selection[id] = -1;
    else if (selection[id] > index) --selection[id];
  }
  void selectItem(int id, const std::string& t) override {
    auto& list = items[id];
    auto at = std::find(list.begin(), list.end(), t);
    selection[id] = t.empty() || at == list.end() ? -1 : static_cast<int>(at - list.begin());
  }
  int selectedIndex(int id) override { return selection.count(id) ? selection[id] : -1; }
  std::string selectedText(int id) override {
    int i = selectedIndex(id);
    return i < 0 ? std::string() : items[id][static_cast<size_t>(i)];
  }
  // The user picks an entry.
  void pick(int id, const std::string& t) { selectItem(id, t); }

  // --- progress and status bar ---
  int progressMax = 0;
  int progress = 0;
  std::vector<int> moves;
  std::string statusText;
  void setProgressRange(int maximum) override { progressMax = maximum; }
  void moveProgress(int delta) override {
    progress += delta;
    moves.push_back(delta);
  }
  void setStatusText(const std::string& t) override { statusText = t; }

  // --- router list ---
  std::vector<RouterListRow> routerRows;
  int routerSelection = -1;
  void setRouterRows(const std::vector<RouterListRow>& rows, int selectedRow) override {
    routerRows = rows;
    routerSelection = selectedRow;
  }
  int selectedRouterRow() override { return routerSelection; }

  // --- package list ---
  std::vector<packages::PackageRow> packageRows;
  int focusedPackage = -1;
  void clearPackageRows() override { packageRows.clear(); }
  void addPackageRow(size_t index, const packages::PackageRow& row) override {
    if (packageRows.size() <= index) packageRows.resize(index + 1);
    packageRows[index] = row;
  }
  void updatePackageRow(size_t index, const packages::PackageRow& row) override { addPackageRow(index, row); }
  int nextPackageItem() override { return focusedPackage; }
  std::vector<int> packageStates() const {
    std::vector<int> states;
    for (const auto& row : packageRows) states.push_back(row.state);
    return states;
  }

  // --- boxes and dialogs ---
  std::vector<Box> boxes;
  std::deque<bool> yesNoAnswers;
  std::vector<std::string> questions;
  std::deque<std::string> setNameAnswers;  // "\x1b" for Cancel
  std::vector<std::string> setNameShown;
  bool netbootAnswer = false;
  bool netbootEnabledAnswer = false;
  uint32_t netbootAddressAnswer = 0;
  bool netbootShownEnabled = false;
  uint32_t netbootShownAddress = 0;
  int netbootOpened = 0;
  int helpShown = 0;
  bool scriptAnswer = false;
  std::string scriptPath;
  int scriptDialogs = 0;
  FakeFolderBrowser browser;

  void showMessage(const std::string& t, const std::string& caption, MessageIcon icon) override {
    boxes.push_back({t, caption, icon});
  }
  bool askYesNo(const std::string& t) override {
    questions.push_back(t);
    if (yesNoAnswers.empty()) return false;
    bool answer = yesNoAnswers.front();
    yesNoAnswers.pop_front();
    return answer;
  }
  bool askSetName(std::string& name) override {
    setNameShown.push_back(name);
    if (setNameAnswers.empty() || setNameAnswers.front() == "\x1b") {
      if (!setNameAnswers.empty()) setNameAnswers.pop_front();
      return false;
    }
    name = setNameAnswers.front();
    setNameAnswers.pop_front();
    return true;
  }
  bool askNetbootSettings(bool& on, uint32_t& address) override {
    ++netbootOpened;
    netbootShownEnabled = on;
    netbootShownAddress = address;
    if (!netbootAnswer) return false;
    on = netbootEnabledAnswer;
    address = netbootAddressAnswer;
    return true;
  }
  void showHelp() override { ++helpShown; }
  bool chooseScriptFile(std::string& path) override {
    ++scriptDialogs;
    if (scriptAnswer) path = scriptPath;
    return scriptAnswer;
  }
  bool chooseInventoryFile(std::string& path) override {
    ++inventoryDialogs;
    if (inventoryAnswer) path = inventoryPath;
    return inventoryAnswer;
  }
  packages::FolderBrowser& folderBrowser() override { return browser; }

  // "Load inventory…"
  int inventoryDialogs = 0;
  bool inventoryAnswer = false;
  std::string inventoryPath;
};

// The desk's workers are the install tests' fakes.
using tarnlift::testing::FakeDriveInstaller;
using tarnlift::testing::FakeRouterInstaller;

class FakeNetboot : public NetbootWorker {
 public:
  std::vector<std::pair<bool, uint32_t>> changes;
  void changeSettings(bool on, uint32_t address) override { changes.emplace_back(on, address); }
  // Lines the boot server logged about other servers, oldest first.
  std::vector<std::string> notices;
  bool otherServerNotice(uint64_t& seen, std::string& line) override {
    if (seen >= notices.size()) return false;
    seen = notices.size();
    line = notices.back();
    return true;
  }
};

class FakeBeacon : public BeaconWorker {
 public:
  std::vector<bool> switches;
  int sent = 0;
  void setOn(bool on) override { switches.push_back(on); }
  void send() override { ++sent; }
};

class FakeWorkers : public MainWorkers {
 public:
  FakeRouterInstaller routers;
  FakeDriveInstaller drives;
  FakeNetboot netboot;
  FakeBeacon beaconWorker;
  app::ManualClock manualClock{100'000'000};
  netboot::testing::FakeInterfaceSource fakeInterfaces;
  std::map<std::string, std::string> env;
  std::string cwd = "/work/cwd";
  std::set<std::string> files;
  std::set<std::string> dirs;
  std::vector<std::string> order;
  std::string kernelOverride;
  bool stopped = false;
  bool drivesUnderCompatibilityLayer = false;

  install::RouterInstaller& startRouterInstaller() override {
    order.push_back("Router installer");
    return routers;
  }
  install::DriveInstaller& makeDriveInstaller(bool underCompatibilityLayer) override {
    order.push_back("local-drive installer");
    drivesUnderCompatibilityLayer = underCompatibilityLayer;
    return drives;
  }
  NetbootWorker& startNetbootServer(const std::string& ko) override {
    order.push_back("PXE Booter");
    kernelOverride = ko;
    return netboot;
  }
  BeaconWorker& beacon() override { return beaconWorker; }
  const app::Clock& clock() override { return manualClock; }
  netboot::InterfaceSource& interfaces() override { return fakeInterfaces; }
  bool environment(const std::string& name, std::string& value) override {
    auto it = env.find(name);
    if (it == env.end()) return false;
    value = it->second;
    return true;
  }
  std::string currentDirectory() override { return cwd; }
  bool fileExists(const std::string& path) override { return files.count(path) != 0 || dirs.count(path) != 0; }
  bool isDirectory(const std::string& path) override { return dirs.count(path) != 0; }
  void stopThreads() override { stopped = true; }
};

// A settings store in memory that logs "read NAME" and "write NAME" for
// every value of every key, and "delete NAME" for removed values.
class RecordingStore : public app::SettingsStore {
 public:
  RecordingStore() : inner_(app::makeMemorySettingsStore()), log_(std::make_shared<std::vector<std::string>>()) {}
  std::unique_ptr<app::SettingsKey> openRoot(const std::string& path, uint32_t& error) override {
    auto key = inner_->openRoot(path, error);
    if (!key) return nullptr;
    return std::make_unique<Key>(std::move(key), log_);
  }
  std::vector<std::string>& log() { return *log_; }

 private:
  class Key : public app::SettingsKey {
   public:
    Key(std::unique_ptr<app::SettingsKey> inner, std::shared_ptr<std::vector<std::string>> log)
        : inner_(std::move(inner)), log_(std::move(log)) {}
    std::unique_ptr<app::SettingsKey> createSubKey(const std::string& name, uint32_t& error) override {
      auto key = inner_->createSubKey(name, error);
      if (!key) return nullptr;
      return std::make_unique<Key>(std::move(key), log_);
    }
    bool query(const std::string& name, app::ValueType& type, std::vector<uint8_t>& data) override {
      log_->push_back("read " + name);
      return inner_->query(name, type, data);
    }
    uint32_t set(const std::string& name, app::ValueType type, const uint8_t* data, size_t size) override {
      log_->push_back("write " + name);
      return inner_->set(name, type, data, size);
    }
    uint32_t deleteSubKey(const std::string& name) override { return inner_->deleteSubKey(name); }
    uint32_t deleteValue(const std::string& name) override {
      log_->push_back("delete " + name);
      return inner_->deleteValue(name);
    }
    uint32_t enumSubKey(uint32_t index, std::string& name) override { return inner_->enumSubKey(index, name); }
    bool enumValue(uint32_t index, app::ValueType& type, std::string& name) override {
      return inner_->enumValue(index, type, name);
    }
    uint32_t close() override { return inner_->close(); }

   private:
    std::unique_ptr<app::SettingsKey> inner_;
    std::shared_ptr<std::vector<std::string>> log_;
  };

  std::shared_ptr<app::SettingsStore> inner_;
  std::shared_ptr<std::vector<std::string>> log_;
};

}  // namespace tarnlift::ui::testing
