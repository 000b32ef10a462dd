#include <windows.h>

#include "doctor/system.h"

namespace tarnlift::doctor {

LinkState linkState(const std::string&) {
  LinkState state;
  state.why = "the link state is not read on Windows";
  return state;
}

std::string findProgram(const std::string& name) {
  char found[MAX_PATH] = {};
  if (SearchPathA(nullptr, name.c_str(), nullptr, MAX_PATH, found, nullptr) == 0) return "";
  return found;
}

std::vector<NeededProgram> diskRoadPrograms() {
  return {{"format.com", "it comes with Windows (System32); disk installations need a real Windows"}};
}

bool readFirewallRules(std::string&, std::string& why) {
  why = "the Windows firewall's rules are not read by this build";
  return false;
}

}  // namespace tarnlift::doctor
