// One line of `tarnlift doctor`: what a check found and, when something is
// wrong, what to do about it.
#pragma once

#include <string>
#include <vector>

namespace tarnlift::doctor {

enum class Level { Ok, Warn, Fail };

struct Finding {
  Level level = Level::Ok;
  std::string check;  // "interface", "port 67/udp", "privileges", ...
  std::string found;  // what the check saw
  std::string fix;    // for warn and fail: what to do; empty for ok
};

const char* levelText(Level level);  // "ok", "warn", "fail"

// "fail port 67/udp: held by dnsmasq (PID 812) on 0.0.0.0; fix: ..."
std::string findingLine(const Finding& finding);

bool anyFailed(const std::vector<Finding>& findings);

}  // namespace tarnlift::doctor
