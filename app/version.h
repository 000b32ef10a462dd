// The program's version, stamped by the build.
#pragma once

namespace tarnlift::app {

// "1.0beta1 (2026-11-22 04:30:00)": the version and the moment of the build.
extern const char* const kVersionText;
// "1.0beta1": the version alone (the window title shows "v" and this).
extern const char* const kVersionWords;

}  // namespace tarnlift::app
