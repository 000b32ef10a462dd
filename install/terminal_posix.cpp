#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "install/headless.h"

namespace tarnlift::install {

bool terminalShowsLiveProgress() {
  if (::isatty(STDOUT_FILENO) == 0) return false;
  // Editors' shells, serial consoles and CI logs say "dumb": they would show
  // the escape sequences as text.
  const char* term = std::getenv("TERM");
  return term != nullptr && term[0] != 0 && std::strcmp(term, "dumb") != 0;
}

}  // namespace tarnlift::install
