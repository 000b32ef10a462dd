// Events and mutexes. Every failed system call here is fatal, so callers
// never check results.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace tarnlift::app {

constexpr uint32_t kWaitInfinite = 0xFFFFFFFFu;

// Something a thread can wait for: an event, a mutex, a thread.
class Waitable {
 public:
  virtual ~Waitable() = default;
  // True when signalled (a mutex: acquired), false on time-out.
  virtual bool waitFor(uint32_t milliseconds) = 0;
};

// Waits on any waitable; a time-out gives false.
inline bool waitOn(Waitable& object, uint32_t milliseconds) { return object.waitFor(milliseconds); }

class Event : public Waitable {
 public:
  Event(bool manualReset, bool inherit = false);
  ~Event() override;
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  void set();
  // Wakes the threads waiting now without leaving the event set.
  void pulse();
  void reset();
  bool waitFor(uint32_t milliseconds) override;

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

// A recursive mutex: the owner may lock it again. A lock that cannot be taken
// within its time-out is treated as a broken invariant and is fatal.
class Mutex : public Waitable {
 public:
  explicit Mutex(bool inherit = false, bool initiallyOwned = false);
  ~Mutex() override;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock(uint32_t milliseconds = kWaitInfinite);
  void unlock();
  bool waitFor(uint32_t milliseconds) override;

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

class MutexLock {
 public:
  explicit MutexLock(Mutex& mutex, uint32_t milliseconds = kWaitInfinite) : mutex_(mutex) { mutex_.lock(milliseconds); }
  ~MutexLock() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

// Sleeps the calling thread.
void sleepMilliseconds(uint32_t milliseconds);

}  // namespace tarnlift::app
