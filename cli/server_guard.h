// The single-instance guard for the long-running server commands: only one
// server may own a network's installation and boot ports.
#pragma once

namespace tarnlift::cli {

// Takes the guard. When another copy holds it, prints the refusal
// ("QL Router Install Server is already running") on standard error and
// returns false; the command then fails (exit 1), so that a script or a
// service manager sees that this copy is not serving.
bool acquireServerGuard();

}  // namespace tarnlift::cli
