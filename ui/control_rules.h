// Which of the main window's controls are enabled (or writable) for the
// selected router, and what a front end may do with that router. The window
// applies these to its dialog controls; the web console sends them with
// every router and the HTTP API refuses what they forbid. Both read the same
// table, so a rule changed here changes everywhere.
#pragma once

#include "install/router_record.h"

namespace tarnlift::ui {

struct ControlRules {
  bool sets = false;             // 1010 the set list
  bool addressFields = false;    // 1006, 1005, 1008 writable
  bool keepConfig = false;       // 1028
  bool baud = false;             // 1030
  bool keepBranding = false;     // 1039
  bool defaultConfig = false;    // 1038
  bool script = false;           // 1032
  bool scriptPath = false;       // 1033 and its "..." 1034
  bool modeScript = false;       // 1040
  bool modeScriptPath = false;   // 1041 and its "..." 1042
  bool shutdown = false;         // 1021
  bool reboot = false;           // 1018
  bool install = false;          // 1023
  bool cancel = false;           // 1024
  bool saveSet = false;          // 1011
  bool deleteSet = false;        // 1012
  bool selectAll = false;        // 1014
  bool selectNone = false;       // 1015
  bool packages = false;         // package check boxes can be changed
};

// The rules for router r (null: no router selected). setShown: the set list
// shows r's set (the set still exists).
ControlRules controlRulesFor(const RouterRecord* r, bool setShown);

// Whether r's package ticks may change: a router that has a status and is
// neither installing nor waiting for reboot.
bool packagesChangeable(const RouterRecord* r);

}  // namespace tarnlift::ui
