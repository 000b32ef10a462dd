#include "web/web_desk.h"

#include <algorithm>
#include <chrono>
#include <set>

#include "install/control_rules.h"
#include "install/router_actions.h"

namespace tarnlift::web {

using nlohmann::json;

WebDesk::WebDesk(install::InstallDesk& desk, packages::PackageSets& sets, install::RememberedChoices& remembered,
                 app::Registry* settings, EventHub& hub, const app::Clock& clock)
    : desk_(desk), sets_(sets), remembered_(remembered), settings_(settings), hub_(hub), clock_(clock) {
  startedAtSeconds_ = static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count());
}

install::AfterInstall WebDesk::afterFor(const net::MacAddress& mac) const {
  auto it = after_.find(mac);
  return it == after_.end() ? defaultAfter_ : it->second;
}

void WebDesk::showMessage(const std::string& text, const std::string&, bool) {
  refusal_ = text;
  std::replace(refusal_.begin(), refusal_.end(), '\n', ' ');
}

bool WebDesk::askYesNo(const std::string& text) {
  warnings_.push_back(text);
  return true;
}

json WebDesk::routers() {
  json list = json::array();
  for (const auto& [mac, row] : desk_.table().rows()) list.push_back(routerJson(row.record, false));
  return list;
}

install::RouterRow* WebDesk::findRow(const std::string& text, WebResult& error) {
  net::MacAddress mac{};
  if (!net::parseMac(text, mac)) {
    error = WebResult::error(404, "no router " + text);
    return nullptr;
  }
  install::RouterRow* row = desk_.table().find(mac);
  if (row == nullptr) error = WebResult::error(404, "no router " + install::macText(mac));
  return row;
}

WebResult WebDesk::router(const std::string& text) {
  WebResult result;
  install::RouterRow* row = findRow(text, result);
  if (row == nullptr) return result;
  return {200, routerJson(row->record)};
}

void WebDesk::rereadPackages() {
  if (!catalogue_.folder().empty()) catalogue_.reload();
}

void WebDesk::showPackagesOf(install::RouterRecord& r) {
  install::showRouterPackages(catalogue_, r);
  if (r.status == install::kStatusReady) {
    catalogue_.applySelection(r.files);
  } else {
    catalogue_.applyBusySelection(r.files);
  }
}

WebResult WebDesk::packages(const std::string& text) {
  WebResult result;
  install::RouterRow* row = findRow(text, result);
  if (row == nullptr) return result;
  showPackagesOf(row->record);
  json list = json::array();
  for (size_t i = 0; i < catalogue_.size(); ++i) {
    const packages::PackageRecord& p = catalogue_.record(i);
    const packages::PackageRow& shown = catalogue_.row(i);
    int state = shown.state;
    list.push_back({{"file", p.fileName},
                    {"name", shown.name},
                    {"version", shown.version},
                    {"architecture", shown.architecture},
                    {"description", shown.description},
                    {"checked", state == packages::kRowChecked || state == packages::kRowCheckedBusy},
                    {"available", state != packages::kRowMissing},
                    {"state", state}});
  }
  return {200, {{"mac", install::macText(row->record.mac)}, {"folder", catalogue_.folder()}, {"packages", list}}};
}

WebResult WebDesk::putSelection(const std::string& text, const json& body) {
  WebResult result;
  install::RouterRow* row = findRow(text, result);
  if (row == nullptr) return result;
  install::RouterRecord& r = row->record;
  if (!body.is_object()) return WebResult::error(400, "the body must be a JSON object");
  if (!install::packagesChangeable(&r)) {
    return WebResult::error(
        409, std::string("the packages of a router that is ") + install::statusRowText(r.status) + " cannot change");
  }
  if (body.contains("set")) {
    if (!body["set"].is_string()) return WebResult::error(400, "set: must be a set name");
    std::string name = body["set"].get<std::string>();
    if (!sets_.contains(name)) return WebResult::error(404, "set: no package set named " + name);
    packages::PackageChoice choice{r.setName, r.packageDir, r.files};
    sets_.chooseSet(choice, name);
    r.setName = choice.setName;
    r.packageDir = choice.folder;
    r.files = choice.files;
    publishChanges();
    return {200, routerJson(r)};
  }
  if (body.contains("select")) {
    // The window's "Select all" and "Select none".
    const json& v = body["select"];
    if (!v.is_string() || (v.get<std::string>() != "all" && v.get<std::string>() != "none")) {
      return WebResult::error(400, "select: must be \"all\" or \"none\"");
    }
    if (!install::controlRulesFor(&r, sets_.contains(r.setName)).selectAll) {
      return WebResult::error(409, std::string("select: not while the router is ") + install::statusRowText(r.status));
    }
    showPackagesOf(r);
    install::selectAllOf(catalogue_, r, v.get<std::string>() == "all");
    publishChanges();
    return {200, routerJson(r)};
  }
  if (!body.contains("files") || !body["files"].is_array()) return WebResult::error(400, "files: must be an array");
  std::vector<std::string> wanted;
  for (const json& f : body["files"]) {
    if (!f.is_string()) return WebResult::error(400, "files: every entry must be a file name");
    wanted.push_back(f.get<std::string>());
  }
  showPackagesOf(r);
  std::vector<size_t> toTick;
  for (const std::string& name : wanted) {
    int index = catalogue_.findByFileName(name);
    if (index < 0) return WebResult::error(400, "files: " + name + " is not in the package list of this router");
    if (!catalogue_.canToggle(static_cast<size_t>(index))) {
      return WebResult::error(409, "files: " + name + " cannot be ticked (" +
                                       catalogue_.row(static_cast<size_t>(index)).description + ")");
    }
    toTick.push_back(static_cast<size_t>(index));
  }
  // As a person would: clear what is not wanted, then tick what is, each
  // click with the window's consequences.
  std::set<std::string> wantedSet(wanted.begin(), wanted.end());
  for (size_t i = 0; i < catalogue_.size(); ++i) {
    if (catalogue_.record(i).selected && wantedSet.count(catalogue_.record(i).fileName) == 0) {
      install::togglePackageOf(catalogue_, r, i);
    }
  }
  for (size_t index : toTick) {
    if (!catalogue_.record(index).selected) install::togglePackageOf(catalogue_, r, index);
  }
  publishChanges();
  return {200, routerJson(r)};
}

WebResult WebDesk::command(const std::string& text, const std::string& verb) {
  WebResult result;
  install::RouterRow* row = findRow(text, result);
  if (row == nullptr) return result;
  install::RouterRecord& r = row->record;
  net::MacAddress mac = r.mac;
  install::ControlRules rules = install::controlRulesFor(&r, sets_.contains(r.setName));
  auto refused = [&](const char* what) {
    return WebResult::error(409, std::string(what) + " is not possible while the router is " +
                                     (r.status == install::kStatusNone ? "gone" : install::statusRowText(r.status)));
  };
  if (verb == "install") {
    if (!rules.install) return refused("Install");
    if (r.status != install::kStatusReady) return refused("Install");
    refusal_.clear();
    warnings_.clear();
    install::showRouterPackages(catalogue_, r);
    catalogue_.applySelection(r.files);
    // The router's own choices, as the API shows and changes them, read
    // as the window's option controls would read them.
    install::InstallOutcome outcome =
        install::installRow(desk_, catalogue_, sets_, remembered_, *this, r, install::asTheControlsReadThem(r));
    if (outcome == install::InstallOutcome::NoSelection) return WebResult::error(409, install::kNoPackagesText);
    if (outcome == install::InstallOutcome::Refused) {
      return WebResult::error(409, refusal_.empty() ? std::string("the install was refused") : refusal_);
    }
    saveSets();
  } else if (verb == "reboot" || verb == "shutdown") {
    if (!(verb == "reboot" ? rules.reboot : rules.shutdown)) return refused(verb == "reboot" ? "Reboot" : "Shutdown");
    if (r.kind != install::kKindRouter) return WebResult::error(409, "a drive cannot be rebooted or shut down");
    install::rebootOrShutdownRow(desk_, r, verb == "reboot");
  } else if (verb == "cancel") {
    if (!rules.cancel) return refused("Cancel");
    install::cancelRow(desk_, remembered_, r);
  } else {
    return WebResult::error(404, "no such command: " + verb);
  }
  publishChanges();
  install::RouterRow* after = desk_.table().find(mac);
  json body = after != nullptr ? routerJson(after->record) : json{{"mac", install::macText(mac)}, {"removed", true}};
  if (!warnings_.empty()) body["warnings"] = warnings_;
  warnings_.clear();
  return {202, body};
}

}  // namespace tarnlift::web
