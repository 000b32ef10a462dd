#include <windows.h>

#include <cstdlib>

#include "tests/install/finish_shell.h"

namespace tarnlift::testing {

std::string commandWritingEnvironment(const std::string& file) {
  std::string text = "echo ";
  const char* names[] = {"MAC",   "RESULT",  "CONFIRMED", "LABEL", "ARCHITECTURE", "ADDRESS",
                         "FILES", "VERSIONS", "BYTES",     "SECONDS", "TEXT",       "TIME"};
  for (const char* name : names) text += "%TARNLIFT_" + std::string(name) + "%^|";
  return text + "> \"" + file + "\"";
}

std::string commandPrintingTwoLines() { return "echo one& (echo two) 1>&2"; }

std::string commandHangingWhenFailed() {
  // cmd.exe has no sleep of its own: this test program sleeps when asked
  // (FinishCommandSleeper).
  char self[MAX_PATH] = "";
  GetModuleFileNameA(nullptr, self, MAX_PATH);
  return std::string("(if \"%TARNLIFT_RESULT%\"==\"failed\" \"") + self +
         "\" --gtest_filter=FinishCommandSleeper.SleepsAMinuteWhenAsked) & echo done %TARNLIFT_MAC%";
}

void setProcessVariable(const char* name, const std::string& value) { _putenv_s(name, value.c_str()); }

}  // namespace tarnlift::testing
