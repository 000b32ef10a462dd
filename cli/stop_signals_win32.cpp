#include <windows.h>

#include <atomic>

#include "cli/stop_signals.h"

namespace tarnlift::cli {
namespace {

std::atomic<bool> gStop{false};

BOOL WINAPI onConsoleEvent(DWORD event) {
  switch (event) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
    case CTRL_CLOSE_EVENT:
    case CTRL_SHUTDOWN_EVENT:
      gStop = true;
      // The main loop notices within a tick and ends cleanly; a closing
      // console gives the process a few seconds for that.
      return TRUE;
    default:
      return FALSE;
  }
}

}  // namespace

void installStopSignals() { SetConsoleCtrlHandler(onConsoleEvent, TRUE); }

bool stopRequested() { return gStop.load(); }

// Windows has no hang-up signal to ask for a re-read with.
bool takeReloadRequest() { return false; }

}  // namespace tarnlift::cli
