#include "install/control_rules.h"

namespace tarnlift::install {

bool packagesChangeable(const RouterRecord* r) {
  return r != nullptr && r->status != kStatusNone && r->status != kStatusInstalling &&
         r->status != kStatusWaitingReboot;
}

ControlRules controlRulesFor(const RouterRecord* r, bool setShown) {
  ControlRules c;
  const bool ready = r != nullptr && r->status == kStatusReady;
  const bool net = r != nullptr && r->kind == kKindRouter;
  const bool keep = r != nullptr && r->keepConfig;
  const bool applyDefault = r != nullptr && r->defaultConfig;
  const bool script = r != nullptr && r->scriptEnabled;
  const bool mode = r != nullptr && r->modeScriptEnabled;

  c.sets = ready;
  c.addressFields = net && ready && !keep && !applyDefault;
  c.keepConfig = net && ready && !applyDefault && !script && !mode;
  c.baud = ready && !keep && !applyDefault;
  c.keepBranding = ready && r->hasBranding;
  // Only a router with a default configuration can have it applied.
  c.defaultConfig = ready && !keep && !script && hasDefaultConfiguration(*r);
  c.script = ready && !keep && !applyDefault;
  c.scriptPath = c.script && script;
  c.modeScript = ready && !keep;
  c.modeScriptPath = c.modeScript && mode;

  const bool canCommand = r != nullptr && (r->status == kStatusReady || r->status == kStatusWaitingReboot);
  c.shutdown = canCommand;
  c.reboot = canCommand;
  c.install = canCommand;
  c.cancel = r != nullptr;

  c.saveSet = ready && !setShown;
  c.deleteSet = ready && setShown;
  c.selectAll = ready;
  c.selectNone = ready;
  c.packages = packagesChangeable(r);
  return c;
}

}  // namespace tarnlift::install
