// The presenter with a recording view, fake workers and a recording
// settings store, and the user's gestures as helpers.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "app/registry.h"
#include "netboot/interfaces.h"
#include "tests/app/capture_log.h"
#include "tests/ui/fakes.h"
#include "ui/main_presenter.h"

namespace tarnlift::ui::testing {

using Names = std::vector<std::string>;

inline net::MacAddress macOf(uint8_t last) { return {0x02, 0, 0, 0, 0, last}; }

inline install::RouterRecord announced(uint8_t last, const std::string& label = "Lab", uint32_t architecture = 2) {
  install::RouterRecord r;
  r.kind = install::kKindRouter;
  r.mac = macOf(last);
  r.label = label;
  r.architecture = architecture;
  r.status = install::kStatusReady;
  return r;
}

inline install::RouterRecord drive(char letter, uint32_t type = 2) {
  install::RouterRecord r;
  r.kind = install::kKindDrive;
  r.mac = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, static_cast<uint8_t>(letter)};
  r.label = std::string(1, letter) + ":\\";
  r.driveType = type;
  return r;
}

class PresenterTest : public ::testing::Test {
 protected:
  void SetUp() override { netboot::setRunningUnderWine(false); }
  void TearDown() override { netboot::setRunningUnderWine(false); }

  // A value stored before the window starts.
  app::Registry& settings() {
    if (!settings_.isOpen()) settings_.openRoot(app::kSettingsKeyPath, app::kFullAccess, store);
    return settings_;
  }

  MainPresenter& start(app::StartupOptions options = {}) {
    presenter = std::make_unique<MainPresenter>(view, workers, options, store);
    presenter->construct();
    return *presenter;
  }

  // Announces a router and lets a tick take it in.
  void discover(const install::RouterRecord& record) {
    install::RouterRecord r = record;
    r.lastSeen = static_cast<int64_t>(workers.manualClock.nowMicros());
    workers.routers.discovered.push_back(r);
    presenter->onTimer();
  }

  int rowOf(const net::MacAddress& mac) {
    const auto& order = presenter->routerOrder();
    auto it = std::find(order.begin(), order.end(), mac);
    return it == order.end() ? -1 : static_cast<int>(it - order.begin());
  }

  // The user selects a row: the list reports the change, the private
  // message comes back.
  void selectRow(const net::MacAddress& mac) {
    presenter->onRouterItemChanging();
    EXPECT_GE(rowOf(mac), 0) << "the row is not in the list";
    view.routerSelection = rowOf(mac);
    presenter->onPrivateMessage(kRefreshCode);
  }
  void selectNone() {
    presenter->onRouterItemChanging();
    view.routerSelection = -1;
    presenter->onPrivateMessage(kRefreshCode);
  }

  install::RouterRecord& record(const net::MacAddress& mac) { return presenter->table().find(mac)->record; }

  void click(int id) { presenter->onCommand(id, kNotifyClicked); }
  void check(int id, bool on) {
    view.checked[id] = on;
    click(id);
  }

  bool boxShown(const std::string& text, const std::string& caption) {
    for (const auto& box : view.boxes)
      if (box.text == text && box.caption == caption) return true;
    return false;
  }

  // Reads as the log recorded them, each name once in a row.
  Names reads() {
    Names out;
    for (const std::string& line : store->log()) {
      if (line.rfind("read ", 0) != 0) continue;
      std::string name = line.substr(5);
      if (out.empty() || out.back() != name) out.push_back(name);
    }
    return out;
  }
  Names writes() {
    Names out;
    for (const std::string& line : store->log())
      if (line.rfind("write ", 0) == 0) out.push_back(line.substr(6));
    return out;
  }

  tarnlift::testing::CapturedLog log;
  std::shared_ptr<RecordingStore> store = std::make_shared<RecordingStore>();
  app::Registry settings_;
  FakeView view;
  FakeWorkers workers;
  std::unique_ptr<MainPresenter> presenter;
};

}  // namespace tarnlift::ui::testing
