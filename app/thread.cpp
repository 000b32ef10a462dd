#include "app/thread.h"

#include "app/failure.h"
#include "app/log.h"

namespace tarnlift::app {

// Runs on the new thread.
uint32_t Thread::enterBody() {
  uint32_t code = run();
  logLine() << "exit thread: " << id_;
  return code;
}

void Thread::stop() {
  if (!running_) fatalFailure("stopping stopped thread");
  if (stopSignal_ != nullptr) stopSignal_->set();
  if (impl_ != nullptr && !waitFor(stopTimeoutMs_)) {
    logLine() << "ignoring 'terminate': " << name_;
  }
  running_ = false;
}

}  // namespace tarnlift::app
