// What a front end may do with one row of the router table, by the row's
// state: which of its install choices may change and which actions are
// open. The window enables its controls by these, the web console sends
// them with every router and its API refuses what they forbid; one table
// for every front end, so a rule changed here changes everywhere.
#pragma once

#include "install/router_record.h"

namespace tarnlift::install {

struct ControlRules {
  bool sets = false;             // a saved package set may be chosen
  bool addressFields = false;    // address, netmask bits and gateway may change
  bool keepConfig = false;       // "keep old configuration" may change
  bool baud = false;             // the console baud rate may change
  bool keepBranding = false;     // "keep branding" may change
  bool defaultConfig = false;    // "apply default config" may change
  bool script = false;           // the configure script may be switched
  bool scriptPath = false;       // the configure script's file may change
  bool modeScript = false;       // the mode script may be switched
  bool modeScriptPath = false;   // the mode script's file may change
  bool shutdown = false;         // the Shutdown action
  bool reboot = false;           // the Reboot action
  bool install = false;          // the Install action
  bool cancel = false;           // the Cancel action
  bool saveSet = false;          // the row's packages may be saved as a set
  bool deleteSet = false;        // the row's set may be deleted
  bool selectAll = false;        // "Select all"
  bool selectNone = false;       // "Select none"
  bool packages = false;         // single packages may be ticked or cleared
};

// The rules for row r (null: no row). setShown: r's set still exists, so
// the row shows it.
ControlRules controlRulesFor(const RouterRecord* r, bool setShown);

// Whether r's package ticks may change: a router that has a status and is
// neither installing nor waiting for reboot.
bool packagesChangeable(const RouterRecord* r);

}  // namespace tarnlift::install
