// The desk's workers as fakes: a "Router installer" whose sessions the test
// sets, and a local-drive installer holder whose drives and installations
// the test sets; both record what they were asked to do.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "install/desk.h"

namespace tarnlift::testing {

class FakeRouterInstaller : public RouterInstaller {
 public:
  std::deque<RouterRecord> discovered;
  std::vector<std::pair<RouterRecord, bool>> started;
  std::map<MacAddress, SessionStatus> sessions;
  std::vector<std::string> calls;

  bool popDiscovered(RouterRecord& record) override {
    if (discovered.empty()) return false;
    record = discovered.front();
    discovered.pop_front();
    return true;
  }
  void start(const RouterRecord& request, bool install) override {
    started.emplace_back(request, install);
    calls.push_back(install ? "start install" : "start command");
    SessionStatus s;
    if (install) {
      s = {kStatusInstalling, request.totalSize, 0, "Sending offer..."};
    } else {
      s = {kStatusDone, 0, 0, ""};
    }
    sessions[request.mac] = s;
  }
  SessionStatus status(const MacAddress& mac) override {
    auto it = sessions.find(mac);
    return it == sessions.end() ? SessionStatus{} : it->second;
  }
  void reboot(const MacAddress&) override { calls.push_back("reboot"); }
  void shutdown(const MacAddress&) override { calls.push_back("shutdown"); }
  void remove(const MacAddress& mac) override {
    calls.push_back("remove");
    sessions.erase(mac);
  }
};

class FakeDriveInstaller : public DriveInstaller {
 public:
  std::vector<RouterRecord> drives;
  std::vector<RouterRecord> started;
  std::map<MacAddress, SessionStatus> installs;
  std::vector<MacAddress> cancelled;
  std::map<MacAddress, std::string> refusals;  // drives that may not be erased, and why
  int listed = 0;

  std::vector<RouterRecord> listDrives() override {
    ++listed;
    return drives;
  }
  bool mayErase(const RouterRecord& row, std::string& reason) override {
    auto it = refusals.find(row.mac);
    if (it == refusals.end()) return true;
    reason = it->second;
    return false;
  }
  void start(const RouterRecord& request) override {
    started.push_back(request);
    installs[request.mac] = {kStatusInstalling, request.totalSize, 0, "Preparing for installation..."};
  }
  bool status(const MacAddress& mac, SessionStatus& s) override {
    auto it = installs.find(mac);
    if (it == installs.end()) return false;
    s = it->second;
    return true;
  }
  void cancel(const MacAddress& mac) override {
    cancelled.push_back(mac);
    installs.erase(mac);
  }
};

}  // namespace tarnlift::testing
