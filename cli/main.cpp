// tarnlift: the headless front end. Standard output carries only a
// command's own results; log lines go to standard error.
#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "app/failure.h"
#include "app/log.h"
#include "app/version.h"
#include "cli/command.h"

namespace tarnlift::cli {
namespace {

std::vector<CliCommand>& commandTable() {
  static std::vector<CliCommand> commands;
  return commands;
}

void printHelp(std::ostream& out) {
  out << "Tarnlift " << kVersionText << "\n"
      << "Installation server for Brisvane routers (headless front end).\n\n"
      << "usage: tarnlift COMMAND [ARGUMENTS]\n\n"
      << "commands:\n";
  std::vector<CliCommand> sorted = commandTable();
  std::sort(sorted.begin(), sorted.end(),
            [](const CliCommand& a, const CliCommand& b) { return std::string(a.name) < b.name; });
  for (const CliCommand& command : sorted) {
    out << "  " << command.name;
    if (command.usage[0] != 0) out << ' ' << command.usage;
    out << "\n      " << command.summary << "\n";
  }
  out << "\nLog lines go to standard error; results go to standard output.\n";
}

// A fatal failure has no window to show here: the message goes to
// standard error after the log line.
void presentFatal(const std::string& text) { std::cerr << "Error: " << text << std::endl; }

}  // namespace

CliCommandRegistrar::CliCommandRegistrar(const CliCommand& command) { commandTable().push_back(command); }

const std::vector<CliCommand>& cliCommands() { return commandTable(); }

int usageError(const std::string& message) {
  std::cerr << "tarnlift: " << message << "\n";
  return kExitUsage;
}

int runVersion(const std::vector<std::string>& arguments) {
  if (!arguments.empty()) return usageError("version takes no arguments");
  std::cout << kVersionText << "\n";
  return kExitOk;
}

const CliCommandRegistrar versionCommand({"version", "", "Print the version and build time.", &runVersion});

}  // namespace tarnlift::cli

int main(int argc, char** argv) {
  using namespace tarnlift;
  using namespace tarnlift::cli;
  setLogStream(std::cerr);
  setFatalPresenter(&presentFatal);
  std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.empty()) {
    printHelp(std::cerr);
    return kExitUsage;
  }
  const std::string& name = arguments.front();
  if (name == "--help" || name == "-h" || name == "help") {
    printHelp(std::cout);
    return kExitOk;
  }
  if (name == "--version") return runVersion({});
  for (const CliCommand& command : cliCommands()) {
    if (name == command.name) {
      startSockets();
      return command.run(std::vector<std::string>(arguments.begin() + 1, arguments.end()));
    }
  }
  return usageError("unknown command '" + name + "' (try: tarnlift --help)");
}
