#include <io.h>

#include <cstdio>

#include "install/headless.h"

namespace tarnlift {

bool standardOutputIsTerminal() { return _isatty(_fileno(stdout)) != 0; }

}  // namespace tarnlift
