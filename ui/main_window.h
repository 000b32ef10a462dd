// The main window as the start-up code sees it.
#pragma once

#include <memory>

#include "app/startup.h"
#include "install/desk.h"

namespace tarnlift {

// Builds the main window; returns its native window handle.
void* buildMainWindow(const app::StartupOptions& options);
// The same with another local-drive installer (tests give a fake one).
void* buildMainWindow(const app::StartupOptions& options, std::unique_ptr<install::DriveInstaller> drives);
// Saves the settings and frees the window's resources.
void tearDownMainWindow();

}  // namespace tarnlift
