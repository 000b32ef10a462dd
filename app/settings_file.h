// A settings store kept in one text file, rewritten whole (atomically) after
// every change. This is the per-user store on Linux.
#pragma once

#include <memory>
#include <string>

#include "app/settings_store.h"

namespace tarnlift::app {

// Opens the store of file path. A file that cannot be read or parsed is
// renamed aside (kept for the user), logged, and the store starts empty.
std::shared_ptr<SettingsStore> makeFileSettingsStore(const std::string& path);

// The per-user file: $XDG_CONFIG_HOME/tarnlift/settings.reg, with
// $XDG_CONFIG_HOME defaulting to ~/.config.
std::string defaultSettingsFilePath();

}  // namespace tarnlift::app
