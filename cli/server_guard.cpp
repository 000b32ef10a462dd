#include "cli/server_guard.h"

#include <iostream>

#include "app/single_instance.h"

namespace tarnlift::cli {

bool acquireServerGuard(const std::string& interfaceName) {
  const std::string name =
      interfaceName.empty() ? std::string(kSingleInstanceName) : std::string(kSingleInstanceName) + "@" + interfaceName;
  if (acquireSingleInstance(name) == InstanceGuard::Acquired) return true;
  std::cerr << kAlreadyRunningText << std::endl;
  return false;
}

}  // namespace tarnlift::cli
