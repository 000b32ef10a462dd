// The headless front end's subcommands. Each command lives in its own
// command_*.cpp file and registers itself with a CliCommandRegistrar.
#pragma once

#include <string>
#include <vector>

namespace tarnlift::cli {

struct CliCommand {
  const char* name;
  const char* usage;    // the arguments, as shown by --help
  const char* summary;  // one line
  // Gets the arguments after the command's name; returns the exit code.
  int (*run)(const std::vector<std::string>& arguments);
};

class CliCommandRegistrar {
 public:
  explicit CliCommandRegistrar(const CliCommand& command);
};

const std::vector<CliCommand>& cliCommands();

// Exit codes shared by the commands.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

// Prints "tarnlift: <message>" on standard error and returns kExitUsage.
int usageError(const std::string& message);

// Starts and stops what the platform's sockets need (nothing on Linux).
void startSockets();

}  // namespace tarnlift::cli
