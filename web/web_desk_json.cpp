// A router as the API and the events show it.
#include "web/web_desk.h"

#include <algorithm>

#include "install/control_rules.h"
#include "net/address.h"
#include "netboot/interfaces.h"
#include "packages/version.h"

namespace tarnlift::web {

using nlohmann::json;

namespace {

const char* afterText(install::AfterInstall after) {
  switch (after) {
    case install::AfterInstall::Reboot:
      return "reboot";
    case install::AfterInstall::Shutdown:
      return "shutdown";
    default: return "none";
  }
}

json controlsJson(const install::ControlRules& c) {
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

}  // namespace

json WebDesk::routerJson(const install::RouterRecord& r, bool withTexts) {
  bool setShown = sets_.contains(r.setName);
  install::ControlRules rules = install::controlRulesFor(&r, setShown);
  std::string address;
  if (r.address != 0) address = netboot::formatIpv4(r.address) + "/" + std::to_string(r.netmaskBits);
  json options = {{"keepConfig", r.keepConfig},
                  {"address", address},
                  {"gateway", net::formatIpv4OrEmpty(r.gateway)},
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
  json record = {{"mac", install::macText(r.mac)},
                 {"kind", r.kind == install::kKindDrive ? "drive" : "router"},
                 {"label", r.label},
                 {"architecture", install::architectureColumnText(r.architecture)},
                 {"architectureName", install::architectureText(r.architecture)},
                 {"versions",
                  {{"installer", r.version != 0 ? packages::formatVersion(r.version) : ""},
                   {"minimum", r.minVersion != 0 ? packages::formatVersion(r.minVersion) : ""}}},
                 {"status", install::statusRowText(r.status)},
                 {"statusCode", r.status},
                 {"progress", r.percentDone()},
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

}  // namespace tarnlift::web
