#include "cli/server_guard.h"

#include <iostream>

#include "app/single_instance.h"

namespace tarnlift::cli {

bool acquireServerGuard() {
  if (acquireSingleInstance() == InstanceGuard::Acquired) return true;
  std::cerr << kAlreadyRunningText << std::endl;
  return false;
}

}  // namespace tarnlift::cli
