// PUT options: every option of a request checked against the control rules
// before the row changes.
#include "web/web_desk.h"

#include <algorithm>
#include <set>

#include "install/control_rules.h"
#include "net/address.h"

namespace tarnlift::web {

using nlohmann::json;

namespace {

constexpr size_t kMaxScriptBytes = 256 * 1024;

bool isBaudItem(uint32_t baud) {
  static const uint32_t kItems[] = {0, 110, 300, 1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200};
  return std::find(std::begin(kItems), std::end(kItems), baud) != std::end(kItems);
}

}  // namespace

WebResult WebDesk::putOptions(const std::string& text, const json& body) {
  WebResult result;
  install::RouterRow* row = findRow(text, result);
  if (row == nullptr) return result;
  if (!body.is_object()) return WebResult::error(400, "the body must be a JSON object");
  static const std::set<std::string> kKnown = {"keepConfig",     "address",    "gateway",          "baudRate",
                                               "defaultConfig",  "keepBranding", "configureScript", "modeScript",
                                               "after"};
  for (const auto& item : body.items()) {
    if (kKnown.count(item.key()) == 0) return WebResult::error(400, item.key() + ": not an option");
  }
  // Work on a copy; only a request that passes every check changes the row.
  install::RouterRecord r = row->record;
  install::AfterInstall after = afterFor(r.mac);
  std::string scriptText, modeText;
  bool newScriptText = false, newModeText = false;
  auto rules = [&] { return install::controlRulesFor(&r, sets_.contains(r.setName)); };
  auto flag = [&](const char* name, bool& field, bool install::ControlRules::*enabled) -> std::string {
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
  auto script = [&](const char* name, bool& enabledField, bool install::ControlRules::*enabled, std::string& textOut,
                    bool& newText) -> std::string {
    if (!body.contains(name)) return {};
    const json& v = body[name];
    if (!v.is_boolean() && !v.is_string() && !v.is_null())
      return std::string(name) + ": must be script text, true, false or null";
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
  if (problem.empty()) problem = flag("keepConfig", r.keepConfig, &install::ControlRules::keepConfig);
  if (problem.empty()) problem = flag("defaultConfig", r.defaultConfig, &install::ControlRules::defaultConfig);
  if (problem.empty()) problem = flag("keepBranding", r.keepBranding, &install::ControlRules::keepBranding);
  if (problem.empty()) {
    problem = script("configureScript", r.scriptEnabled, &install::ControlRules::script, scriptText, newScriptText);
  }
  if (problem.empty())
    problem = script("modeScript", r.modeScriptEnabled, &install::ControlRules::modeScript, modeText, newModeText);
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
      if (slash == std::string::npos || !bitsOk || !net::parseDottedQuad(t.substr(0, slash), address) || address == 0) {
        problem = "address: must be A.B.C.D/BITS or empty";
      } else {
        bits = install::netmaskBitsFromText(bitsText);
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
    if (!v.is_string() || (!v.get<std::string>().empty() && (!net::parseDottedQuad(v.get<std::string>(), gateway) || gateway == 0))) {
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
      after = install::AfterInstall::Reboot;
    } else if (t == "shutdown") {
      after = install::AfterInstall::Shutdown;
    } else if (t == "none") {
      after = install::AfterInstall::None;
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

}  // namespace tarnlift::web
