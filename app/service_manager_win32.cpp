#include "app/service_manager.h"

namespace tarnlift::app {

// Windows services speak through the service control manager, which the
// console program is not run by; there is nothing to tell.
void notifyServiceManager(const std::string&) {}

bool standardErrorIsJournal() { return false; }

}  // namespace tarnlift::app
