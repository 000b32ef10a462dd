// Commands for the finish-command tests in the platform's own interpreter
// (/bin/sh on Linux, cmd.exe on Windows).
#pragma once

#include <string>

namespace tarnlift::testing {

// Writes every TARNLIFT_ variable's value to file, separated by '|'.
std::string commandWritingEnvironment(const std::string& file);
// "one" on standard output, then "two" on standard error.
std::string commandPrintingTwoLines();
// Runs for a minute when TARNLIFT_RESULT is "failed", else prints
// "done MAC" and ends.
std::string commandHangingWhenFailed();
// Sets a variable of this process (inherited by commands it starts).
void setProcessVariable(const char* name, const std::string& value);

}  // namespace tarnlift::testing
