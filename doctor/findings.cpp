#include "doctor/findings.h"

namespace tarnlift::doctor {

const char* levelText(Level level) {
  switch (level) {
    case Level::Ok:
      return "ok";
    case Level::Warn:
      return "warn";
    case Level::Fail:
      return "fail";
  }
  return "fail";
}

std::string findingLine(const Finding& finding) {
  std::string line = levelText(finding.level);
  line.append(line.size() < 4 ? 5 - line.size() : 1, ' ');
  line += finding.check + ": " + finding.found;
  if (!finding.fix.empty()) line += "; fix: " + finding.fix;
  return line;
}

bool anyFailed(const std::vector<Finding>& findings) {
  for (const Finding& f : findings) {
    if (f.level == Level::Fail) return true;
  }
  return false;
}

}  // namespace tarnlift::doctor
