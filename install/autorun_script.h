// The generated autorun script: the router command lines for the address,
// gateway and console baud rate the user chose, after the user's own
// configuration script, written to a temporary file that is sent to the
// router as "autorun.scr".
#pragma once

#include <string>

#include "install/router_record.h"

namespace tarnlift::install {

// The generated lines alone (no user script), for the request's options.
std::string generatedScriptText(const RouterRecord& request);

// Makes the temporary file. Returns its path; empty when no script is made
// ("Apply default config" on) or on failure, in which case failure holds the
// reason ("Could not open temporary file", "Could not open script file",
// "Could not read script", "Could not write file", "Could not write script").
std::string makeAutorunScript(const RouterRecord& request, std::string& failure);

// A fresh file in the system's temporary folder whose name starts with
// prefix; the file is created (empty) so that the name stays ours. Empty on
// failure.
std::string makeUniqueTempFile(const std::string& prefix);

}  // namespace tarnlift::install
