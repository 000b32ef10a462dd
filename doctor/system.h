// What the checks ask the operating system beyond sockets and interfaces:
// an interface's link, a program on the search path, the firewall's rules.
// Each answer says when it could not be had, so that a check reports "not
// checked" instead of guessing.
#pragma once

#include <string>
#include <vector>

namespace tarnlift::doctor {

struct LinkState {
  bool known = false;  // false: `why` says what could not be read
  bool up = false;     // administratively up
  bool carrier = false;
  std::string why;
};
LinkState linkState(const std::string& interfaceName);

// The full path of a program the local disk road runs; empty when none.
std::string findProgram(const std::string& name);

// The programs the local disk road runs, each with how to get it.
struct NeededProgram {
  const char* name;
  const char* fix;
};
std::vector<NeededProgram> diskRoadPrograms();

// The firewall's rules as the platform gives them: on Linux the output of
// `nft -j list ruleset`. False with `why` when they cannot be read.
bool readFirewallRules(std::string& rules, std::string& why);

// The Windows firewall, read through its COM interface: which of the current
// profiles are on, and whether an enabled inbound allow rule names this
// program. False with `why` where it cannot be read (and on Linux).
struct FirewallProfiles {
  std::string onProfiles;   // "public, private"; empty when none is on
  bool programAllowed = false;
  std::string program;      // the path the rules were searched for
};
bool readFirewallProfiles(FirewallProfiles& profiles, std::string& why);

}  // namespace tarnlift::doctor
