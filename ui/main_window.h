// The main window as the start-up code sees it.
#pragma once

#include "app/startup.h"

namespace tarnlift {

// Builds the main window; returns its native window handle.
void* buildMainWindow(const StartupOptions& options);
// Saves the settings and frees the window's resources.
void tearDownMainWindow();

}  // namespace tarnlift
