#include <windows.h>

#include "app/failure.h"
#include "app/log.h"
#include "app/thread.h"

namespace tarnlift::app {

struct Thread::Impl {
  static DWORD WINAPI procedure(LPVOID argument) { return static_cast<Thread*>(argument)->enterBody(); }
  HANDLE handle = nullptr;
};

Thread::Thread(std::string name, bool inherit)
    : inherit_(inherit),
      name_(std::move(name)),
      event_(std::make_unique<Event>(true, inherit)),
      mutex_(std::make_unique<Mutex>(inherit, false)) {}

Thread::~Thread() { destroy(); }

void Thread::start() {
  if (running_) fatalFailure("thread already started");
  SECURITY_ATTRIBUTES attributes{};
  attributes.nLength = sizeof attributes;
  attributes.bInheritHandle = inherit_ ? TRUE : FALSE;
  impl_ = std::make_unique<Impl>();
  DWORD id = 0;
  impl_->handle = CreateThread(&attributes, 0, &Impl::procedure, this, 0, &id);
  if (impl_->handle == nullptr) {
    impl_.reset();
    fatalFailure("CreateThread");
  }
  id_ = id;
  logLine() << "start thread: " << id_ << " name=" << name_;
  running_ = true;
}

bool Thread::isFinished() const {
  if (impl_ == nullptr || impl_->handle == nullptr) return true;
  DWORD code = 0;
  if (!GetExitCodeThread(impl_->handle, &code)) fatalFailure("GetExitCodeThread");
  return code != STILL_ACTIVE;
}

bool Thread::waitFor(uint32_t milliseconds) {
  if (impl_ == nullptr || impl_->handle == nullptr) return true;
  DWORD result = WaitForSingleObject(impl_->handle, milliseconds);
  if (result == WAIT_TIMEOUT) return false;
  if (result == WAIT_FAILED) fatalFailure("Object WaitForSingleObject");
  return true;
}

void Thread::destroy() {
  if (impl_ != nullptr && impl_->handle != nullptr) {
    if (running_) stop();
    if (!isFinished()) {
      logLine() << "thread still active, terminating";
      TerminateThread(impl_->handle, 0xFFFFFFFF);
    }
  }
  mutex_.reset();
  event_.reset();
  if (impl_ != nullptr && impl_->handle != nullptr) CloseHandle(impl_->handle);
  impl_.reset();
}

}  // namespace tarnlift::app
