#include "doctor/privileges.h"

namespace tarnlift::doctor {

// Windows lets any user bind ports below 1024; the firewall, not a
// privilege, decides what arrives.
std::string missingServerPrivileges(bool) { return {}; }

}  // namespace tarnlift::doctor
