// What the command line asks of the program at start-up.
#pragma once

#include <string>

namespace tarnlift::app {

struct StartupOptions {
  // "--current-directory" anywhere in the command line: the current
  // directory is the package folder and no saved package sets are loaded.
  bool currentDirectory = false;
  // Otherwise the whole command line: a file served in place of every boot
  // image when not empty.
  std::string kernelOverride;
};

StartupOptions parseStartupCommandLine(const std::string& commandLine);

// Logs "cmd: ", "cd: " and "ko: '...'" for the parsed command line.
void logStartupOptions(const std::string& commandLine, const StartupOptions& options);

}  // namespace tarnlift::app
