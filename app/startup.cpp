#include "app/startup.h"

#include "app/log.h"

namespace tarnlift::app {

StartupOptions parseStartupCommandLine(const std::string& commandLine) {
  StartupOptions options;
  // Found anywhere, even inside another argument: this is a plain text
  // search, not an argument parser.
  options.currentDirectory = commandLine.find("--current-directory") != std::string::npos;
  if (!options.currentDirectory) options.kernelOverride = commandLine;
  return options;
}

void logStartupOptions(const std::string& commandLine, const StartupOptions& options) {
  logLine() << "cmd: " << commandLine;
  logLine() << "cd: " << options.currentDirectory;
  logLine() << "ko: '" << options.kernelOverride << "'";
}

}  // namespace tarnlift::app
