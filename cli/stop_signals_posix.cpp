#include <csignal>

#include "cli/stop_signals.h"

namespace tarnlift::cli {
namespace {

volatile std::sig_atomic_t gStop = 0;
volatile std::sig_atomic_t gReload = 0;

extern "C" void onStopSignal(int) { gStop = 1; }
extern "C" void onReloadSignal(int) { gReload = 1; }

}  // namespace

void installStopSignals() {
  struct sigaction stop {};
  stop.sa_handler = onStopSignal;
  sigemptyset(&stop.sa_mask);
  sigaction(SIGTERM, &stop, nullptr);
  sigaction(SIGINT, &stop, nullptr);
  struct sigaction reload {};
  reload.sa_handler = onReloadSignal;
  sigemptyset(&reload.sa_mask);
  reload.sa_flags = SA_RESTART;
  sigaction(SIGHUP, &reload, nullptr);
}

bool stopRequested() { return gStop != 0; }

bool takeReloadRequest() {
  if (gReload == 0) return false;
  gReload = 0;
  return true;
}

}  // namespace tarnlift::cli
