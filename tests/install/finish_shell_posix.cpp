#include <cstdlib>

#include "tests/install/finish_shell.h"

namespace tarnlift::testing {

std::string commandWritingEnvironment(const std::string& file) {
  std::string text = "printf '%s';";
  const char* names[] = {"MAC",   "RESULT",  "CONFIRMED", "LABEL", "ARCHITECTURE", "ADDRESS",
                         "FILES", "VERSIONS", "BYTES",     "SECONDS", "TEXT",       "TIME"};
  for (const char* name : names) text += " printf '%s|' \"$TARNLIFT_" + std::string(name) + "\";";
  return "{ " + text + " } > '" + file + "'";
}

std::string commandPrintingTwoLines() { return "echo one; echo two >&2"; }

std::string commandHangingWhenFailed() {
  return "if [ \"$TARNLIFT_RESULT\" = failed ]; then sleep 60; fi; echo done $TARNLIFT_MAC";
}

void setProcessVariable(const char* name, const std::string& value) { setenv(name, value.c_str(), 1); }

}  // namespace tarnlift::testing
