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

class FakeRouterInstaller : public install::RouterInstaller {
 public:
  std::deque<install::RouterRecord> discovered;
  std::vector<std::pair<install::RouterRecord, bool>> started;
  std::map<net::MacAddress, install::SessionStatus> sessions;
  std::vector<std::string> calls;

  bool popDiscovered(install::RouterRecord& record) override {
    if (discovered.empty()) return false;
    record = discovered.front();
    discovered.pop_front();
    return true;
  }
  void start(const install::RouterRecord& request, bool install) override {
    started.emplace_back(request, install);
    calls.push_back(install ? "start install" : "start command");
    install::SessionStatus s;
    if (install) {
      s = {install::kStatusInstalling, request.totalSize, 0, "Sending offer..."};
    } else {
      s = {install::kStatusDone, 0, 0, ""};
    }
    sessions[request.mac] = s;
  }
  install::SessionStatus status(const net::MacAddress& mac) override {
    auto it = sessions.find(mac);
    return it == sessions.end() ? install::SessionStatus{} : it->second;
  }
  void reboot(const net::MacAddress&) override { calls.push_back("reboot"); }
  void shutdown(const net::MacAddress&) override { calls.push_back("shutdown"); }
  void remove(const net::MacAddress& mac) override {
    calls.push_back("remove");
    sessions.erase(mac);
  }
};

class FakeDriveInstaller : public install::DriveInstaller {
 public:
  std::vector<install::RouterRecord> drives;
  std::vector<install::RouterRecord> started;
  std::map<net::MacAddress, install::SessionStatus> installs;
  std::vector<net::MacAddress> cancelled;
  std::map<net::MacAddress, std::string> refusals;  // drives that may not be erased, and why
  int listed = 0;

  std::vector<install::RouterRecord> listDrives() override {
    ++listed;
    return drives;
  }
  bool mayErase(const install::RouterRecord& row, std::string& reason) override {
    auto it = refusals.find(row.mac);
    if (it == refusals.end()) return true;
    reason = it->second;
    return false;
  }
  void start(const install::RouterRecord& request) override {
    started.push_back(request);
    installs[request.mac] = {install::kStatusInstalling, request.totalSize, 0, "Preparing for installation..."};
  }
  bool status(const net::MacAddress& mac, install::SessionStatus& s) override {
    auto it = installs.find(mac);
    if (it == installs.end()) return false;
    s = it->second;
    return true;
  }
  void cancel(const net::MacAddress& mac) override {
    cancelled.push_back(mac);
    installs.erase(mac);
  }
};

}  // namespace tarnlift::testing
