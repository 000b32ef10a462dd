#include "cli/server_guard.h"

#include <iostream>

#include "app/single_instance.h"

namespace tarnlift::cli {

bool acquireServerGuard(const std::string& interfaceName) {
  const std::string name = interfaceName.empty() ? std::string(app::kSingleInstanceName)
                                                 : std::string(app::kSingleInstanceName) + "@" + interfaceName;
  if (app::acquireSingleInstance(name) == app::InstanceGuard::Acquired) return true;
  std::cerr << app::kAlreadyRunningText << std::endl;
  return false;
}

}  // namespace tarnlift::cli
