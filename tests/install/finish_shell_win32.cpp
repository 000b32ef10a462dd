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
  // cmd.exe has no sleep of its own: finishsleeper, built beside this test
  // program, sleeps the seconds it is given.
  char self[MAX_PATH] = "";
  GetModuleFileNameA(nullptr, self, MAX_PATH);
  std::string folder(self);
  folder.erase(folder.find_last_of("\\/") + 1);
  return std::string("(if \"%TARNLIFT_RESULT%\"==\"failed\" \"") + folder +
         "finishsleeper.exe\" 60) & echo done %TARNLIFT_MAC%";
}

void setProcessVariable(const char* name, const std::string& value) { _putenv_s(name, value.c_str()); }

}  // namespace tarnlift::testing
