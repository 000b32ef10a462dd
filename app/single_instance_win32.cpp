#include <windows.h>

#include "app/failure.h"
#include "app/single_instance.h"

namespace tarnlift::app {

InstanceGuard acquireSingleInstance(const std::string& name) {
  // Never released or closed: the guard lives until the process ends.
  HANDLE mutex = CreateMutexA(nullptr, TRUE, name.c_str());
  if (mutex == nullptr) fatalFailure("CreateMutex() failed");
  return GetLastError() == ERROR_ALREADY_EXISTS ? InstanceGuard::AlreadyRunning : InstanceGuard::Acquired;
}

}  // namespace tarnlift::app
