// The network boot options `serve` and `netboot` share: one definition, so
// both commands take and explain them alike.
#pragma once

#include <CLI/CLI.hpp>

#include "netboot/netboot_service.h"

namespace tarnlift::cli {

// --boot-images DIR and --kernel FILE, and with `withSwitch` also --netboot
// (the `netboot` command serves network booting anyway).
void addNetbootOptions(CLI::App& app, netboot::NetbootServeOptions& options, bool withSwitch);

// --boot-images and --kernel need --netboot to mean anything. kExitOk or the
// usage error's exit code.
int checkNetbootOptions(const netboot::NetbootServeOptions& options, bool withSwitch);

}  // namespace tarnlift::cli
