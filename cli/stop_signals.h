// How the long-running commands learn that they should end or re-read their
// folders: SIGTERM and SIGINT (Ctrl+C, or a service manager stopping the
// unit) ask for a clean end, SIGHUP for a re-read (and no longer ends the
// program when an ssh session closes). On Windows, Ctrl+C, Ctrl+Break and
// closing the console window ask for the clean end.
#pragma once

namespace tarnlift::cli {

// Installs the handlers. Called first thing, before any socket opens, so that
// no signal arriving during start-up ends the program uncleanly.
void installStopSignals();

// True once an end was asked for.
bool stopRequested();

// True once for each re-read asked for since the last call.
bool takeReloadRequest();

}  // namespace tarnlift::cli
