// Monotonic time in microseconds. The installation protocol's deadlines are
// taken from a Clock so that tests can move time by hand.
#pragma once

#include <atomic>
#include <cstdint>

namespace tarnlift::app {

class Clock {
 public:
  virtual ~Clock() = default;
  virtual uint64_t nowMicros() const = 0;
};

class SteadyClock : public Clock {
 public:
  uint64_t nowMicros() const override;
  static SteadyClock& instance();
};

// A clock that moves only when told to.
class ManualClock : public Clock {
 public:
  explicit ManualClock(uint64_t startMicros = 1'000'000) : now_(startMicros) {}
  uint64_t nowMicros() const override { return now_.load(); }
  void advanceMicros(uint64_t micros) { now_ += micros; }
  void advanceMillis(uint64_t millis) { now_ += millis * 1000; }
  void setMicros(uint64_t micros) { now_ = micros; }

 private:
  std::atomic<uint64_t> now_;
};

}  // namespace tarnlift::app
