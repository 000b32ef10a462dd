// An owned operating-system thread whose body a worker supplies.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "app/sync.h"

namespace tarnlift::app {

class Thread : public Waitable {
 public:
  static constexpr uint32_t kDefaultStopTimeoutMs = 5000;

  explicit Thread(std::string name, bool inherit = false);
  // A derived class must call destroy() in its own destructor, while the
  // members its body uses still exist; this one only catches what is left.
  ~Thread() override;
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  void start();
  // Signals the stop event (if any) and waits up to the stop time-out; a body
  // that does not end in time is left running and logged.
  void stop();
  bool isFinished() const;
  // Stops a running thread, kills it if still alive, releases everything.
  void destroy();
  // Waits for the thread to end.
  bool waitFor(uint32_t milliseconds) override;

  uint32_t id() const { return id_; }
  const std::string& name() const { return name_; }
  bool running() const { return running_; }
  uint32_t stopTimeout() const { return stopTimeoutMs_; }
  void setStopTimeout(uint32_t milliseconds) { stopTimeoutMs_ = milliseconds; }
  void setStopSignal(Event* signal) { stopSignal_ = signal; }
  Event& ownEvent() { return *event_; }
  Mutex& ownMutex() { return *mutex_; }

  struct Impl;

 protected:
  virtual uint32_t run() = 0;

 private:
  friend struct Impl;
  uint32_t enterBody();

  std::unique_ptr<Impl> impl_;
  uint32_t id_ = 0;
  bool inherit_ = false;
  bool running_ = false;
  std::string name_;
  uint32_t stopTimeoutMs_ = kDefaultStopTimeoutMs;
  Event* stopSignal_ = nullptr;
  std::unique_ptr<Event> event_;
  std::unique_ptr<Mutex> mutex_;
};

}  // namespace tarnlift::app
