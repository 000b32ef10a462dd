#include <windows.h>

#include "app/failure.h"
#include "app/sync.h"

namespace tarnlift::app {

namespace {

SECURITY_ATTRIBUTES securityAttributes(bool inherit) {
  SECURITY_ATTRIBUTES attributes{};
  attributes.nLength = sizeof attributes;
  attributes.bInheritHandle = inherit ? TRUE : FALSE;
  return attributes;
}

bool waitHandle(HANDLE handle, uint32_t milliseconds) {
  DWORD result = WaitForSingleObject(handle, milliseconds);
  if (result == WAIT_TIMEOUT) return false;
  if (result == WAIT_FAILED) fatalFailure("Object WaitForSingleObject");
  return true;  // signalled, or an abandoned mutex
}

}  // namespace

struct Event::Impl {
  HANDLE handle = nullptr;
};

Event::Event(bool manualReset, bool inherit) : impl_(std::make_unique<Impl>()) {
  SECURITY_ATTRIBUTES attributes = securityAttributes(inherit);
  impl_->handle = CreateEventA(&attributes, manualReset ? TRUE : FALSE, FALSE, nullptr);
  if (impl_->handle == nullptr) fatalFailure("Event CreateEvent");
}

Event::~Event() {
  if (impl_->handle != nullptr) CloseHandle(impl_->handle);
}

void Event::set() {
  if (!SetEvent(impl_->handle)) fatalFailure("Event SetEvent");
}

void Event::pulse() {
  if (!PulseEvent(impl_->handle)) fatalFailure("Event PulseEvent");
}

void Event::reset() {
  if (!ResetEvent(impl_->handle)) fatalFailure("Event ResetEvent");
}

bool Event::waitFor(uint32_t milliseconds) { return waitHandle(impl_->handle, milliseconds); }

struct Mutex::Impl {
  HANDLE handle = nullptr;
};

Mutex::Mutex(bool inherit, bool initiallyOwned) : impl_(std::make_unique<Impl>()) {
  SECURITY_ATTRIBUTES attributes = securityAttributes(inherit);
  impl_->handle = CreateMutexA(&attributes, initiallyOwned ? TRUE : FALSE, nullptr);
  if (impl_->handle == nullptr) fatalFailure("Mutex CreateMutex");
}

Mutex::~Mutex() {
  if (impl_->handle != nullptr) CloseHandle(impl_->handle);
}

bool Mutex::waitFor(uint32_t milliseconds) { return waitHandle(impl_->handle, milliseconds); }

void Mutex::lock(uint32_t milliseconds) {
  if (!waitFor(milliseconds)) fatalFailure("Mutex wait timeouted");
}

void Mutex::unlock() {
  if (!ReleaseMutex(impl_->handle)) fatalFailure("Mutex ReleaseMutex");
}

void sleepMilliseconds(uint32_t milliseconds) { Sleep(milliseconds); }

}  // namespace tarnlift::app
