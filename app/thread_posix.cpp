#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>

#include "app/failure.h"
#include "app/log.h"
#include "app/thread.h"

namespace tarnlift::app {

struct Thread::Impl {
  static void* procedure(void* argument);

  pthread_t handle{};
  std::mutex mutex;
  std::condition_variable changed;
  bool idKnown = false;
  bool finished = false;
  bool joinedOrDetached = false;
  uint32_t exitCode = 0;
};

void* Thread::Impl::procedure(void* argument) {
  auto* self = static_cast<Thread*>(argument);
  {
    std::lock_guard<std::mutex> lock(self->impl_->mutex);
    self->id_ = static_cast<uint32_t>(syscall(SYS_gettid));
    self->impl_->idKnown = true;
  }
  self->impl_->changed.notify_all();
  uint32_t code = self->enterBody();
  {
    std::lock_guard<std::mutex> lock(self->impl_->mutex);
    self->impl_->exitCode = code;
    self->impl_->finished = true;
  }
  self->impl_->changed.notify_all();
  return nullptr;
}

Thread::Thread(std::string name, bool inherit)
    : inherit_(inherit),
      name_(std::move(name)),
      event_(std::make_unique<Event>(true, inherit)),
      mutex_(std::make_unique<Mutex>(inherit, false)) {}

Thread::~Thread() { destroy(); }

void Thread::start() {
  if (running_) fatalFailure("thread already started");
  auto impl = std::make_unique<Impl>();
  Impl* raw = impl.get();
  impl_ = std::move(impl);
  int error = pthread_create(&raw->handle, nullptr, &Impl::procedure, this);
  if (error != 0) {
    impl_.reset();
    fatalFailure("CreateThread", static_cast<uint32_t>(error));
  }
  {
    // The id is the kernel's thread id, known once the thread runs.
    std::unique_lock<std::mutex> lock(raw->mutex);
    raw->changed.wait(lock, [raw] { return raw->idKnown; });
  }
  logLine() << "start thread: " << id_ << " name=" << name_;
  running_ = true;
}

bool Thread::isFinished() const {
  if (impl_ == nullptr) return true;
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->finished;
}

bool Thread::waitFor(uint32_t milliseconds) {
  if (impl_ == nullptr) return true;
  std::unique_lock<std::mutex> lock(impl_->mutex);
  auto done = [this] { return impl_->finished; };
  if (milliseconds == kWaitInfinite) {
    impl_->changed.wait(lock, done);
    return true;
  }
  return impl_->changed.wait_for(lock, std::chrono::milliseconds(milliseconds), done);
}

// There is no safe way to kill a thread here. A body that will not end is
// cancelled at its next cancellation point (a sleep, a wait, a receive) and,
// if it does not end within a second, detached so that the process can still
// exit. Its object must then not be used any more.
void Thread::destroy() {
  if (impl_ != nullptr) {
    if (running_) stop();
    if (!isFinished()) {
      logLine() << "thread still active, terminating";
      pthread_cancel(impl_->handle);
      timespec deadline{};
      clock_gettime(CLOCK_REALTIME, &deadline);
      deadline.tv_sec += 1;
      if (pthread_timedjoin_np(impl_->handle, nullptr, &deadline) != 0) {
        pthread_detach(impl_->handle);
        impl_.release();  // the detached body may still touch its state
      }
    } else {
      pthread_join(impl_->handle, nullptr);
    }
    impl_.reset();
  }
  mutex_.reset();
  event_.reset();
}

}  // namespace tarnlift::app
