#include <unistd.h>

#include "install/headless.h"

namespace tarnlift {

bool standardOutputIsTerminal() { return ::isatty(STDOUT_FILENO) != 0; }

}  // namespace tarnlift
