// What the server may lack to bind its ports, found before it starts: a
// server that cannot bind 67 and 69 would otherwise end on the first bind
// with the system's text and no word of the fix.
#pragma once

#include <string>

namespace tarnlift::doctor {

// Empty when the process may bind what it needs; otherwise the message that
// names the missing privilege and how to grant it. `netboot`: UDP ports 67
// and 69 are needed too.
std::string missingServerPrivileges(bool netboot);

}  // namespace tarnlift::doctor
