#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "app/failure.h"
#include "app/sync.h"

namespace tarnlift::app {

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

// A recursive POSIX mutex, like the kernel mutex it stands in for: the owner
// may take it again, and the system refuses an unlock by a thread that does
// not own it (EPERM) instead of leaving that undefined.
struct Mutex::Impl {
  pthread_mutex_t mutex;
};

Mutex::Mutex(bool /*inherit*/, bool initiallyOwned) : impl_(std::make_unique<Impl>()) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  int result = pthread_mutex_init(&impl_->mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  if (result != 0) fatalFailure("Mutex CreateMutex", static_cast<uint32_t>(result));
  if (initiallyOwned) lock();
}

Mutex::~Mutex() { pthread_mutex_destroy(&impl_->mutex); }

bool Mutex::waitFor(uint32_t milliseconds) {
  if (milliseconds == kWaitInfinite) return pthread_mutex_lock(&impl_->mutex) == 0;
  if (milliseconds == 0) return pthread_mutex_trylock(&impl_->mutex) == 0;
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += milliseconds / 1000;
  deadline.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  int result;
  do {
    result = pthread_mutex_timedlock(&impl_->mutex, &deadline);
  } while (result == EINTR);
  return result == 0;
}

void Mutex::lock(uint32_t milliseconds) {
  if (!waitFor(milliseconds)) {
    setLastSystemError(ETIMEDOUT);
    fatalFailure("Mutex wait timeouted");
  }
}

void Mutex::unlock() {
  int result = pthread_mutex_unlock(&impl_->mutex);
  if (result != 0) fatalFailure("Mutex ReleaseMutex", static_cast<uint32_t>(result));
}

void sleepMilliseconds(uint32_t milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); }

}  // namespace tarnlift::app
