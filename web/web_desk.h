// The web console's view of the desk: what the API and the event stream
// read and do, on the same router table, package sets and remembered
// choices as the front end that owns them (`serve`). Every tick rule,
// control-state rule and option check is the install core's, the window's
// too (install/control_rules, install/router_actions, the Install command);
// this class only turns requests into those calls and rows into JSON. Its
// members are kept in files by job: web_desk.cpp (rows, packages,
// commands), web_desk_json.cpp, web_desk_options.cpp, web_desk_scripts.cpp,
// web_desk_sets.cpp, web_desk_metrics.cpp, web_desk_events.cpp.
//
// Threads: every member is called with lock() held. The owner holds it
// around its own tick, the HTTP threads around each request, so the desk is
// only ever touched by one thread at a time. Writing to clients happens
// outside the lock.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "app/clock.h"
#include "install/desk.h"
#include "install/install_command.h"
#include "packages/package_catalogue.h"
#include "packages/package_sets.h"
#include "web/event_hub.h"
#include "web/json_text.h"

namespace tarnlift::app {
class Registry;
}

namespace tarnlift::web {

// An answer of the API: the status and the JSON body.
struct WebResult {
  int status = 200;
  nlohmann::json body;
  static WebResult error(int status, const std::string& text) { return {status, {{"error", text}}}; }
};

// The network boot services as the console shows them.
struct NetbootClientSeen {
  std::string mac;
  int clientClass = 0;
  std::string when;  // UTC, ISO 8601
};

struct BootImageSeen {
  int number = 0;
  uint64_t size = 0;
  std::string where;
};

struct NetbootSnapshot {
  bool enabled = false;
  std::string clientAddress;
  std::string interfaceAddress;
  std::string interfaceMac;
  std::vector<BootImageSeen> images;
  std::vector<NetbootClientSeen> clients;
  uint64_t bootpReplies = 0;
  uint64_t tftpTransfers = 0;
  uint64_t tftpBytesSent = 0;
};

class WebDesk : private install::InstallPrompter {
 public:
  WebDesk(install::InstallDesk& desk, packages::PackageSets& sets, install::RememberedChoices& remembered,
          app::Registry* settings, EventHub& hub, const app::Clock& clock);

  std::mutex& lock() { return lock_; }

  // What to do after installing, per router (the auto reboot list); routers
  // the console did not set use defaultAfter.
  void setDefaultAfter(install::AfterInstall after) { defaultAfter_ = after; }
  install::AfterInstall afterFor(const net::MacAddress& mac) const;

  // Where scripts given as text are written (a private folder of the
  // process); empty: scripts as text are refused.
  void setScriptFolder(const std::string& folder) { scriptFolder_ = folder; }

  // The network boot panel's values (filled by the owner before a read).
  void setNetboot(const NetbootSnapshot& snapshot) { netboot_ = snapshot; }

  // Reads the package folder shown last again (the owner was told the
  // files changed, e.g. by SIGHUP).
  void rereadPackages();

  // After the owner's tick (and after every change the API makes): sends a
  // "router" event for every row that changed ("removed" for rows that
  // went), and counts finished installations. A row's progress and texts go
  // out at most four times a second; a change of status goes out at once.
  void publishChanges();

  // ---- the API ----
  nlohmann::json routers();
  WebResult router(const std::string& macText);
  WebResult packages(const std::string& macText);
  WebResult putSelection(const std::string& macText, const nlohmann::json& body);
  WebResult putOptions(const std::string& macText, const nlohmann::json& body);
  // verb: "install", "reboot", "shutdown", "cancel"
  WebResult command(const std::string& macText, const std::string& verb);
  nlohmann::json sets() const;
  WebResult putSet(const std::string& name, const nlohmann::json& body);
  WebResult deleteSet(const std::string& name);
  nlohmann::json netboot() const;
  // Prometheus text format 0.0.4.
  std::string metrics();
  // A router as the API shows it. Events and the list name the scripts and
  // their sizes; the texts (up to 256 KiB each) only come with one router.
  nlohmann::json routerJson(const install::RouterRecord& record, bool withTexts = true);

  uint64_t installsDone() const { return installsDone_; }
  uint64_t installsFailed() const { return installsFailed_; }

 private:
  // InstallPrompter: the API cannot ask; questions are answered yes (the
  // options were given on purpose) and noted, refusals are kept.
  void showMessage(const std::string& text, const std::string& title, bool errorIcon) override;
  bool askYesNo(const std::string& text) override;

  install::RouterRow* findRow(const std::string& macText, WebResult& error);
  void showPackagesOf(install::RouterRecord& record);
  bool saveSets();
  bool writeScript(const net::MacAddress& mac, const char* name, const std::string& text, std::string& path);
  uint64_t scriptSize(const std::map<net::MacAddress, std::string>& texts, const net::MacAddress& mac,
                      const std::string& path) const;
  bool folderOffered(const std::string& folder) const;

  std::mutex lock_;
  install::InstallDesk& desk_;
  packages::PackageSets& sets_;
  install::RememberedChoices& remembered_;
  app::Registry* settings_;
  EventHub& hub_;
  const app::Clock& clock_;
  packages::PackageCatalogue catalogue_;
  install::AfterInstall defaultAfter_ = install::AfterInstall::Reboot;
  std::map<net::MacAddress, install::AfterInstall> after_;
  std::map<net::MacAddress, std::string> scriptTexts_;
  std::map<net::MacAddress, std::string> modeScriptTexts_;
  NetbootSnapshot netboot_;
  std::string scriptFolder_;

  struct Sent {
    std::string json;
    uint64_t at = 0;  // µs
    uint32_t status = 0;
    uint32_t progress = 0;
  };
  std::map<net::MacAddress, Sent> sent_;
  uint64_t installsDone_ = 0;
  uint64_t installsFailed_ = 0;
  uint64_t bytesSent_ = 0;
  std::string refusal_;
  std::vector<std::string> warnings_;
  uint64_t startedAtSeconds_ = 0;
};

}  // namespace tarnlift::web
