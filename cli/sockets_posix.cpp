#include "cli/command.h"

namespace tarnlift::cli {

void startSockets() {}

}  // namespace tarnlift::cli
