// The privilege check lives with the doctor's checks now; this name stays
// for the front-end files that still include it.
#pragma once

#include "doctor/privileges.h"

namespace tarnlift::cli {
using doctor::missingServerPrivileges;
}  // namespace tarnlift::cli
