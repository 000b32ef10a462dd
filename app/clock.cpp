#include "app/clock.h"

#include <chrono>

namespace tarnlift::app {

uint64_t SteadyClock::nowMicros() const {
  auto since = std::chrono::steady_clock::now().time_since_epoch();
  // Never 0: 0 means "no deadline" to the protocol code.
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(since).count()) + 1;
}

SteadyClock& SteadyClock::instance() {
  static SteadyClock clock;
  return clock;
}

}  // namespace tarnlift::app
