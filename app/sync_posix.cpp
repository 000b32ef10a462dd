#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "app/failure.h"
#include "app/sync.h"

namespace tarnlift {

// A condition variable stands in for the kernel event: "pulse" is a
// broadcast that wakes whoever waits now and leaves the event clear.
struct Event::Impl {
  std::mutex mutex;
  std::condition_variable changed;
  bool manualReset = false;
  bool signalled = false;
  uint64_t pulses = 0;
};

Event::Event(bool manualReset, bool /*inherit*/) : impl_(std::make_unique<Impl>()) { impl_->manualReset = manualReset; }

Event::~Event() = default;

void Event::set() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->signalled = true;
  if (impl_->manualReset) {
    impl_->changed.notify_all();
  } else {
    impl_->changed.notify_one();
  }
}

void Event::pulse() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->signalled = false;
  ++impl_->pulses;
  impl_->changed.notify_all();
}

void Event::reset() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->signalled = false;
}

bool Event::waitFor(uint32_t milliseconds) {
  std::unique_lock<std::mutex> lock(impl_->mutex);
  const uint64_t pulsesBefore = impl_->pulses;
  auto ready = [&] { return impl_->signalled || impl_->pulses != pulsesBefore; };
  bool woken = true;
  if (milliseconds == kWaitInfinite) {
    impl_->changed.wait(lock, ready);
  } else if (milliseconds == 0) {
    // A poll: a timed wait with no time left still sleeps for the timer slack.
    woken = impl_->signalled;
  } else {
    woken = impl_->changed.wait_for(lock, std::chrono::milliseconds(milliseconds), ready);
  }
  if (woken && !impl_->manualReset) impl_->signalled = false;
  return woken;
}

struct Mutex::Impl {
  std::recursive_timed_mutex mutex;
};

Mutex::Mutex(bool /*inherit*/, bool initiallyOwned) : impl_(std::make_unique<Impl>()) {
  if (initiallyOwned) impl_->mutex.lock();
}

Mutex::~Mutex() = default;

bool Mutex::waitFor(uint32_t milliseconds) {
  if (milliseconds == kWaitInfinite) {
    impl_->mutex.lock();
    return true;
  }
  return impl_->mutex.try_lock_for(std::chrono::milliseconds(milliseconds));
}

void Mutex::lock(uint32_t milliseconds) {
  if (!waitFor(milliseconds)) {
    setLastSystemError(ETIMEDOUT);
    fatalFailure("Mutex wait timeouted");
  }
}

void Mutex::unlock() { impl_->mutex.unlock(); }

void sleepMilliseconds(uint32_t milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); }

}  // namespace tarnlift
