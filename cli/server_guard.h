// The single-instance guard for the long-running server commands: only one
// server may own a segment's installation and boot ports.
#pragma once

#include <string>

namespace tarnlift::cli {

// Takes the guard: one per network (namespace) when `interfaceName` is empty,
// else one per named interface, so that a host with one interface per
// segment runs one server on each. When another copy holds it, prints the
// refusal ("QL Router Install Server is already running") on standard error
// and returns false; the command then fails (exit 1), so that a script or a
// service manager sees that this copy is not serving.
bool acquireServerGuard(const std::string& interfaceName = "");

}  // namespace tarnlift::cli
