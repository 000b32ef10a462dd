#include "web/web_desk.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>

#include "app/registry.h"
#include "app/version.h"
#include "install/datagram.h"
#include "netboot/interfaces.h"
#include "packages/version.h"
#include "install/control_rules.h"
#include "install/router_actions.h"

namespace tarnlift::web {
namespace {

using nlohmann::json;

constexpr uint64_t kEventSpacingMicros = 250000;  // four a second per router
constexpr size_t kMaxScriptBytes = 256 * 1024;

uint32_t percentOf(const RouterRecord& r) {
  if (r.totalSize == 0) return 0;
  uint64_t percent = static_cast<uint64_t>(r.progress) * 100 / r.totalSize;
  return static_cast<uint32_t>(std::min<uint64_t>(percent, 100));
}

const char* afterText(AfterInstall after) {
  switch (after) {
    case AfterInstall::Reboot: return "reboot";
    case AfterInstall::Shutdown: return "shutdown";
    default: return "none";
  }
}

std::string dottedOrEmpty(uint32_t address) { return address == 0 ? std::string() : netboot::formatIpv4(address); }

json controlsJson(const ControlRules& c) {
  return {{"sets", c.sets},
          {"address", c.addressFields},
          {"keepConfig", c.keepConfig},
          {"baudRate", c.baud},
          {"keepBranding", c.keepBranding},
          {"defaultConfig", c.defaultConfig},
          {"configureScript", c.script},
          {"modeScript", c.modeScript},
          {"install", c.install},
          {"reboot", c.reboot},
          {"shutdown", c.shutdown},
          {"cancel", c.cancel},
          {"saveSet", c.saveSet},
          {"deleteSet", c.deleteSet},
          {"selectAll", c.selectAll},
          {"selectNone", c.selectNone},
          {"packages", c.packages}};
}

bool isBaudItem(uint32_t baud) {
  static const uint32_t kItems[] = {0, 110, 300, 1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200};
  return std::find(std::begin(kItems), std::end(kItems), baud) != std::end(kItems);
}

// A dotted IPv4 address, strictly: four decimal parts of at most 255.
bool parseDotted(const std::string& text, uint32_t& address) {
  size_t pos = 0;
  for (int i = 0; i < 4; ++i) {
    if (pos >= text.size() || text[pos] < '0' || text[pos] > '9') return false;
    uint32_t value = 0;
    size_t digits = 0;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
      value = value * 10 + static_cast<uint32_t>(text[pos] - '0');
      if (++digits > 3 || value > 255) return false;
      ++pos;
    }
    if (i < 3) {
      if (pos >= text.size() || text[pos] != '.') return false;
      ++pos;
    }
  }
  if (pos != text.size()) return false;
  address = addressFromText(text);
  return true;
}


}  // namespace

WebDesk::WebDesk(InstallDesk& desk, packages::PackageSets& sets, RememberedChoices& remembered, Registry* settings,
                 EventHub& hub, const Clock& clock)
    : desk_(desk), sets_(sets), remembered_(remembered), settings_(settings), hub_(hub), clock_(clock) {
  startedAtSeconds_ = static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count());
}

AfterInstall WebDesk::afterFor(const MacAddress& mac) const {
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

// ---- JSON ------------------------------------------------------------------

uint64_t WebDesk::scriptSize(const std::map<MacAddress, std::string>& texts, const MacAddress& mac,
                             const std::string& path) const {
  auto text = texts.find(mac);
  if (text != texts.end()) return text->second.size();
  std::error_code ec;
  uint64_t size = path.empty() ? 0 : static_cast<uint64_t>(std::filesystem::file_size(path, ec));
  return ec ? 0 : size;
}

json WebDesk::routerJson(const RouterRecord& r, bool withTexts) {
  bool setShown = sets_.contains(r.setName);
  ControlRules rules = controlRulesFor(&r, setShown);
  std::string address;
  if (r.address != 0) address = netboot::formatIpv4(r.address) + "/" + std::to_string(r.netmaskBits);
  json options = {{"keepConfig", r.keepConfig},
                  {"address", address},
                  {"gateway", dottedOrEmpty(r.gateway)},
                  {"baudRate", r.baudRate},
                  {"defaultConfig", r.defaultConfig},
                  {"keepBranding", r.keepBranding},
                  {"configureScript", r.scriptEnabled},
                  {"configureScriptFile", r.scriptPath},
                  {"configureScriptSize", scriptSize(scriptTexts_, r.mac, r.scriptPath)},
                  {"modeScript", r.modeScriptEnabled},
                  {"modeScriptFile", r.modeScriptPath},
                  {"modeScriptSize", scriptSize(modeScriptTexts_, r.mac, r.modeScriptPath)},
                  {"after", afterText(afterFor(r.mac))}};
  if (withTexts) {
    auto text = scriptTexts_.find(r.mac);
    if (text != scriptTexts_.end()) options["configureScriptText"] = text->second;
    auto mode = modeScriptTexts_.find(r.mac);
    if (mode != modeScriptTexts_.end()) options["modeScriptText"] = mode->second;
  }
  json record = {{"mac", macText(r.mac)},
                 {"kind", r.kind == kKindDrive ? "drive" : "router"},
                 {"label", r.label},
                 {"architecture", architectureColumnText(r.architecture)},
                 {"architectureName", architectureText(r.architecture)},
                 {"versions",
                  {{"installer", r.version != 0 ? packages::formatVersion(r.version) : ""},
                   {"minimum", r.minVersion != 0 ? packages::formatVersion(r.minVersion) : ""}}},
                 {"status", statusRowText(r.status)},
                 {"statusCode", r.status},
                 {"progress", percentOf(r)},
                 {"bytesSent", r.progress},
                 {"totalBytes", r.totalSize},
                 {"detail", r.statusText},
                 {"selection", r.files},
                 {"set", setShown ? json(r.setName) : json(nullptr)},
                 {"packageDir", r.packageDir},
                 {"options", options},
                 {"controls", controlsJson(rules)}};
  return record;
}

json WebDesk::routers() {
  json list = json::array();
  for (const auto& [mac, row] : desk_.table().rows()) list.push_back(routerJson(row.record, false));
  return list;
}

RouterRow* WebDesk::findRow(const std::string& text, WebResult& error) {
  MacAddress mac{};
  if (!parseMac(text, mac)) {
    error = WebResult::error(404, "no router " + text);
    return nullptr;
  }
  RouterRow* row = desk_.table().find(mac);
  if (row == nullptr) error = WebResult::error(404, "no router " + macText(mac));
  return row;
}

WebResult WebDesk::router(const std::string& text) {
  WebResult result;
  RouterRow* row = findRow(text, result);
  if (row == nullptr) return result;
  return {200, routerJson(row->record)};
}

void WebDesk::rereadPackages() {
  if (!catalogue_.folder().empty()) catalogue_.reload();
}

void WebDesk::showPackagesOf(RouterRecord& r) {
  showRouterPackages(catalogue_, r);
  if (r.status == kStatusReady) {
    catalogue_.applySelection(r.files);
  } else {
    catalogue_.applyBusySelection(r.files);
  }
}

WebResult WebDesk::packages(const std::string& text) {
  WebResult result;
  RouterRow* row = findRow(text, result);
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
  return {200, {{"mac", macText(row->record.mac)}, {"folder", catalogue_.folder()}, {"packages", list}}};
}

WebResult WebDesk::putSelection(const std::string& text, const json& body) {
  WebResult result;
  RouterRow* row = findRow(text, result);
  if (row == nullptr) return result;
  RouterRecord& r = row->record;
  if (!body.is_object()) return WebResult::error(400, "the body must be a JSON object");
  if (!packagesChangeable(&r)) {
    return WebResult::error(409, std::string("the packages of a router that is ") + statusRowText(r.status) +
                                     " cannot change");
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
    if (!controlRulesFor(&r, sets_.contains(r.setName)).selectAll) {
      return WebResult::error(409, std::string("select: not while the router is ") + statusRowText(r.status));
    }
    showPackagesOf(r);
    selectAllOf(catalogue_, r, v.get<std::string>() == "all");
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
      togglePackageOf(catalogue_, r, i);
    }
  }
  for (size_t index : toTick) {
    if (!catalogue_.record(index).selected) togglePackageOf(catalogue_, r, index);
  }
  publishChanges();
  return {200, routerJson(r)};
}

bool WebDesk::writeScript(const MacAddress& mac, const char* name, const std::string& text, std::string& path) {
  if (scriptFolder_.empty()) return false;
  std::string hex = macText(mac);
  hex.erase(std::remove(hex.begin(), hex.end(), ':'), hex.end());
  path = scriptFolder_ + "/" + hex + "-" + name;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  return static_cast<bool>(out);
}

WebResult WebDesk::putOptions(const std::string& text, const json& body) {
  WebResult result;
  RouterRow* row = findRow(text, result);
  if (row == nullptr) return result;
  if (!body.is_object()) return WebResult::error(400, "the body must be a JSON object");
  static const std::set<std::string> kKnown = {"keepConfig",     "address",    "gateway",          "baudRate",
                                               "defaultConfig",  "keepBranding", "configureScript", "modeScript",
                                               "after"};
  for (const auto& item : body.items()) {
    if (kKnown.count(item.key()) == 0) return WebResult::error(400, item.key() + ": not an option");
  }
  // Work on a copy; only a request that passes every check changes the row.
  RouterRecord r = row->record;
  AfterInstall after = afterFor(r.mac);
  std::string scriptText, modeText;
  bool newScriptText = false, newModeText = false;
  auto rules = [&] { return controlRulesFor(&r, sets_.contains(r.setName)); };
  auto flag = [&](const char* name, bool& field, bool ControlRules::*enabled) -> std::string {
    if (!body.contains(name)) return {};
    if (!body[name].is_boolean()) return std::string(name) + ": must be true or false";
    bool value = body[name].get<bool>();
    if (value == field) return {};
    if (!(rules().*enabled)) return std::string(name) + ": cannot change now";
    field = value;
    return {};
  };
  // A script is text (the script itself), or true/false to switch the one
  // the router has.
  auto script = [&](const char* name, bool& enabledField, bool ControlRules::*enabled, std::string& textOut,
                    bool& newText) -> std::string {
    if (!body.contains(name)) return {};
    const json& v = body[name];
    if (!v.is_boolean() && !v.is_string() && !v.is_null()) return std::string(name) + ": must be script text, true, false or null";
    bool on = v.is_string() || (v.is_boolean() && v.get<bool>());
    if (v.is_string()) {
      textOut = v.get<std::string>();
      if (textOut.size() > kMaxScriptBytes) return std::string(name) + ": script too long";
      if (scriptFolder_.empty()) return std::string(name) + ": scripts as text are not accepted here";
      newText = true;
    }
    if (on != enabledField || newText) {
      if (!(rules().*enabled)) return std::string(name) + ": cannot change now";
    }
    enabledField = on;
    return {};
  };
  std::string problem;
  // In the window's order: the check boxes that lock the others first.
  if (problem.empty()) problem = flag("keepConfig", r.keepConfig, &ControlRules::keepConfig);
  if (problem.empty()) problem = flag("defaultConfig", r.defaultConfig, &ControlRules::defaultConfig);
  if (problem.empty()) problem = flag("keepBranding", r.keepBranding, &ControlRules::keepBranding);
  if (problem.empty()) {
    problem = script("configureScript", r.scriptEnabled, &ControlRules::script, scriptText, newScriptText);
  }
  if (problem.empty()) problem = script("modeScript", r.modeScriptEnabled, &ControlRules::modeScript, modeText, newModeText);
  if (problem.empty() && body.contains("baudRate")) {
    const json& v = body["baudRate"];
    if (!v.is_number_unsigned() && !(v.is_number_integer() && v.get<int64_t>() == 0)) {
      problem = "baudRate: must be one of 0, 110, 300, 1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200";
    } else if (!isBaudItem(static_cast<uint32_t>(std::min<uint64_t>(v.get<uint64_t>(), 0xFFFFFFFF))) ||
               v.get<uint64_t>() > 0xFFFFFFFF) {
      problem = "baudRate: must be one of 0, 110, 300, 1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200";
    } else if (v.get<uint32_t>() != r.baudRate) {
      if (!rules().baud) {
        problem = "baudRate: cannot change now";
      } else {
        r.baudRate = v.get<uint32_t>();
      }
    }
  }
  if (problem.empty() && body.contains("address")) {
    const json& v = body["address"];
    uint32_t address = 0, bits = 0;
    if (!v.is_string()) {
      problem = "address: must be A.B.C.D/BITS or empty";
    } else if (!v.get<std::string>().empty()) {
      std::string t = v.get<std::string>();
      size_t slash = t.find('/');
      std::string bitsText = slash == std::string::npos ? "" : t.substr(slash + 1);
      bool bitsOk = !bitsText.empty() && bitsText.size() <= 2 &&
                    std::all_of(bitsText.begin(), bitsText.end(), [](char c) { return c >= '0' && c <= '9'; }) &&
                    std::stoul(bitsText) <= 32;
      if (slash == std::string::npos || !bitsOk || !parseDotted(t.substr(0, slash), address) || address == 0) {
        problem = "address: must be A.B.C.D/BITS or empty";
      } else {
        bits = netmaskBitsFromText(bitsText);
      }
    }
    if (problem.empty() && (address != r.address || bits != r.netmaskBits)) {
      if (!rules().addressFields) {
        problem = "address: cannot change now";
      } else {
        r.address = address;
        r.netmaskBits = bits;
      }
    }
  }
  if (problem.empty() && body.contains("gateway")) {
    const json& v = body["gateway"];
    uint32_t gateway = 0;
    if (!v.is_string() || (!v.get<std::string>().empty() && (!parseDotted(v.get<std::string>(), gateway) || gateway == 0))) {
      problem = "gateway: must be A.B.C.D or empty";
    } else if (gateway != r.gateway) {
      if (!rules().addressFields) {
        problem = "gateway: cannot change now";
      } else {
        r.gateway = gateway;
      }
    }
  }
  if (problem.empty() && body.contains("after")) {
    const json& v = body["after"];
    std::string t = v.is_string() ? v.get<std::string>() : "";
    if (t == "reboot") {
      after = AfterInstall::Reboot;
    } else if (t == "shutdown") {
      after = AfterInstall::Shutdown;
    } else if (t == "none") {
      after = AfterInstall::None;
    } else {
      problem = "after: must be reboot, shutdown or none";
    }
  }
  if (!problem.empty()) {
    bool conflict = problem.find("cannot change now") != std::string::npos;
    return WebResult::error(conflict ? 409 : 400, problem);
  }
  if (newScriptText && !writeScript(r.mac, "autorun.rsc", scriptText, r.scriptPath)) {
    return WebResult::error(500, "configureScript: could not be stored");
  }
  if (newModeText && !writeScript(r.mac, "mode.rsc", modeText, r.modeScriptPath)) {
    return WebResult::error(500, "modeScript: could not be stored");
  }
  if (newScriptText) scriptTexts_[r.mac] = scriptText;
  if (newModeText) modeScriptTexts_[r.mac] = modeText;
  row->record = r;
  after_[r.mac] = after;
  publishChanges();
  return {200, routerJson(row->record)};
}

WebResult WebDesk::command(const std::string& text, const std::string& verb) {
  WebResult result;
  RouterRow* row = findRow(text, result);
  if (row == nullptr) return result;
  RouterRecord& r = row->record;
  MacAddress mac = r.mac;
  ControlRules rules = controlRulesFor(&r, sets_.contains(r.setName));
  auto refused = [&](const char* what) {
    return WebResult::error(409, std::string(what) + " is not possible while the router is " +
                                     (r.status == kStatusNone ? "gone" : statusRowText(r.status)));
  };
  if (verb == "install") {
    if (!rules.install) return refused("Install");
    if (r.status != kStatusReady) return refused("Install");
    refusal_.clear();
    warnings_.clear();
    showRouterPackages(catalogue_, r);
    catalogue_.applySelection(r.files);
    // The router's own choices, as the API shows and changes them, read
    // as the window's option controls would read them.
    InstallOutcome outcome =
        installRow(desk_, catalogue_, sets_, remembered_, *this, r, asTheControlsReadThem(r));
    if (outcome == InstallOutcome::NoSelection) return WebResult::error(409, kNoPackagesText);
    if (outcome == InstallOutcome::Refused) {
      return WebResult::error(409, refusal_.empty() ? std::string("the install was refused") : refusal_);
    }
    saveSets();
  } else if (verb == "reboot" || verb == "shutdown") {
    if (!(verb == "reboot" ? rules.reboot : rules.shutdown)) return refused(verb == "reboot" ? "Reboot" : "Shutdown");
    if (r.kind != kKindRouter) return WebResult::error(409, "a drive cannot be rebooted or shut down");
    rebootOrShutdownRow(desk_, r, verb == "reboot");
  } else if (verb == "cancel") {
    if (!rules.cancel) return refused("Cancel");
    cancelRow(desk_, remembered_, r);
  } else {
    return WebResult::error(404, "no such command: " + verb);
  }
  publishChanges();
  RouterRow* after = desk_.table().find(mac);
  json body = after != nullptr ? routerJson(after->record) : json{{"mac", macText(mac)}, {"removed", true}};
  if (!warnings_.empty()) body["warnings"] = warnings_;
  warnings_.clear();
  return {202, body};
}

// ---- sets --------------------------------------------------------------------

bool WebDesk::saveSets() {
  if (settings_ == nullptr) return true;
  sets_.saveSets(*settings_);
  return true;
}

json WebDesk::sets() const {
  json list = json::array();
  for (const auto& [name, strings] : sets_.sets()) {
    json files = json::array();
    for (size_t i = 1; i < strings.size(); ++i) files.push_back(strings[i]);
    list.push_back({{"name", name}, {"folder", strings.empty() ? "" : strings.front()}, {"files", files}});
  }
  return list;
}

namespace {
std::filesystem::path normalFolder(const std::string& folder) {
  std::error_code ec;
  std::filesystem::path path = std::filesystem::absolute(folder, ec).lexically_normal();
  if (!path.has_filename()) path = path.parent_path();  // "/srv/pk/" is "/srv/pk"
  return path;
}
}  // namespace

// The folders a set may name: those beside or under serve's package folder
// (under its parent) and those the console already shows (a router's
// folder, a saved set's). Anything else would let a caller make the
// installer read packages from wherever it likes.
bool WebDesk::folderOffered(const std::string& folder) const {
  std::filesystem::path wanted = normalFolder(folder);
  std::filesystem::path parent = normalFolder(desk_.packageDir()).parent_path();
  std::filesystem::path below = wanted.lexically_relative(parent);
  if (!below.empty() && below != "." && *below.begin() != "..") return true;
  for (const auto& [mac, row] : desk_.table().rows()) {
    if (!row.record.packageDir.empty() && normalFolder(row.record.packageDir) == wanted) return true;
  }
  for (const auto& [name, strings] : sets_.sets()) {
    if (!strings.empty() && normalFolder(strings.front()) == wanted) return true;
  }
  return false;
}

WebResult WebDesk::putSet(const std::string& name, const json& body) {
  if (name.empty() || name.size() > 200) return WebResult::error(400, "name: must be 1 to 200 characters");
  if (!body.is_object() || !body.contains("files") || !body["files"].is_array()) {
    return WebResult::error(400, "files: must be an array");
  }
  packages::PackageChoice choice;
  choice.folder = desk_.packageDir();
  if (body.contains("folder")) {
    if (!body["folder"].is_string() || body["folder"].get<std::string>().empty()) {
      return WebResult::error(400, "folder: must be a folder name");
    }
    choice.folder = body["folder"].get<std::string>();
    if (!folderOffered(choice.folder)) {
      return WebResult::error(400, "folder: " + choice.folder + " is not under " +
                                       normalFolder(desk_.packageDir()).parent_path().string() +
                                       " nor a folder of a router or a set");
    }
  }
  for (const json& f : body["files"]) {
    if (!f.is_string() || f.get<std::string>().empty()) return WebResult::error(400, "files: every entry must be a file name");
    choice.files.push_back(f.get<std::string>());
  }
  if (choice.files.empty()) return WebResult::error(400, packages::kEmptySetMessage);
  sets_.storeSet(name, choice);
  saveSets();
  publishChanges();
  return {200, {{"name", name}, {"folder", choice.folder}, {"files", choice.files}}};
}

WebResult WebDesk::deleteSet(const std::string& name) {
  if (!sets_.deleteSet(name, settings_)) return WebResult::error(404, "no package set named " + name);
  for (const auto& [mac, row] : desk_.table().rows()) {
    RouterRow* r = desk_.table().find(mac);
    if (r->record.setName == name) r->record.setName.clear();
  }
  publishChanges();
  return {200, {{"deleted", name}}};
}

// ---- network boot and metrics ------------------------------------------------

json WebDesk::netboot() const {
  json images = json::array();
  for (const BootImageSeen& i : netboot_.images) images.push_back({{"number", i.number}, {"size", i.size}, {"where", i.where}});
  json clients = json::array();
  for (const NetbootClientSeen& c : netboot_.clients) {
    clients.push_back({{"mac", c.mac}, {"class", c.clientClass}, {"when", c.when}});
  }
  return {{"enabled", netboot_.enabled},
          {"clientAddress", netboot_.clientAddress},
          {"interface", {{"address", netboot_.interfaceAddress}, {"mac", netboot_.interfaceMac}}},
          {"bootImages", images},
          {"clients", clients}};
}

std::string WebDesk::metrics() {
  std::map<uint32_t, uint64_t> byStatus;
  for (uint32_t s = kStatusReady; s <= kStatusWaitingReboot; ++s) byStatus[s] = 0;
  for (const auto& [mac, row] : desk_.table().rows()) {
    if (row.record.status >= kStatusReady && row.record.status <= kStatusWaitingReboot) ++byStatus[row.record.status];
  }
  std::string out;
  out += "# HELP tarnlift_routers Rows of the router table by status.\n# TYPE tarnlift_routers gauge\n";
  for (const auto& [status, count] : byStatus) {
    out += "tarnlift_routers{status=\"" + std::string(statusRowText(status)) + "\"} " + std::to_string(count) + "\n";
  }
  out += "# HELP tarnlift_installs_total Installations finished, by result.\n# TYPE tarnlift_installs_total counter\n";
  out += "tarnlift_installs_total{result=\"done\"} " + std::to_string(installsDone_) + "\n";
  out += "tarnlift_installs_total{result=\"failed\"} " + std::to_string(installsFailed_) + "\n";
  out += "# HELP tarnlift_install_bytes_sent_total Package and script bytes sent to routers.\n";
  out += "# TYPE tarnlift_install_bytes_sent_total counter\n";
  out += "tarnlift_install_bytes_sent_total " + std::to_string(bytesSent_) + "\n";
  out += "# HELP tarnlift_bootp_replies_total BOOTP replies sent.\n# TYPE tarnlift_bootp_replies_total counter\n";
  out += "tarnlift_bootp_replies_total " + std::to_string(netboot_.bootpReplies) + "\n";
  out += "# HELP tarnlift_tftp_transfers_total TFTP transfers finished.\n# TYPE tarnlift_tftp_transfers_total counter\n";
  out += "tarnlift_tftp_transfers_total " + std::to_string(netboot_.tftpTransfers) + "\n";
  out += "# HELP tarnlift_tftp_bytes_sent_total TFTP data bytes sent.\n# TYPE tarnlift_tftp_bytes_sent_total counter\n";
  out += "tarnlift_tftp_bytes_sent_total " + std::to_string(netboot_.tftpBytesSent) + "\n";
  out += "# HELP process_start_time_seconds Start time of the process since the Unix epoch in seconds.\n";
  out += "# TYPE process_start_time_seconds gauge\n";
  out += "process_start_time_seconds " + std::to_string(startedAtSeconds_) + "\n";
  out += "# HELP tarnlift_info The program's version.\n# TYPE tarnlift_info gauge\n";
  out += "tarnlift_info{version=\"" + std::string(kVersionWords) + "\"} 1\n";
  return out;
}

// ---- events --------------------------------------------------------------------

void WebDesk::publishChanges() {
  uint64_t now = clock_.nowMicros();
  std::set<MacAddress> present;
  for (const auto& [mac, row] : desk_.table().rows()) {
    present.insert(mac);
    const RouterRecord& r = row.record;
    auto it = sent_.find(mac);
    bool known = it != sent_.end();
    Sent& sent = sent_[mac];
    // Bytes and results count once, as the rows show them.
    if (known && r.progress > sent.progress &&
        (r.status == kStatusInstalling || r.status == kStatusWaitingReboot || r.status == kStatusDone)) {
      bytesSent_ += r.progress - sent.progress;
    }
    if (known && r.status != sent.status) {
      if (r.status == kStatusDone && sent.status != kStatusReady) ++installsDone_;
      if (r.status == kStatusFailed) ++installsFailed_;
    }
    bool statusChanged = !known || r.status != sent.status;
    sent.status = r.status;
    sent.progress = r.progress;
    // Progress and texts at most four times a second; a new status always,
    // so that a client sees every step of an installation in order.
    if (!statusChanged && sent.at != 0 && now - sent.at < kEventSpacingMicros) continue;
    std::string text = jsonText(routerJson(r, false));
    if (text == sent.json) continue;
    sent.json = std::move(text);
    sent.at = now;
    hub_.publishState("router", macText(mac), sent.json);
  }
  for (auto it = sent_.begin(); it != sent_.end();) {
    if (present.count(it->first) != 0) {
      ++it;
      continue;
    }
    hub_.publishRemoval("removed", macText(it->first), jsonText(json{{"mac", macText(it->first)}}));
    after_.erase(it->first);
    it = sent_.erase(it);
  }
}

}  // namespace tarnlift::web
