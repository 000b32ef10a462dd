// The headless front end's subcommands. Each command lives in its own
// command_*.cpp file and registers itself with a CliCommandRegistrar. A
// command declares its options once, on a CLI11 app of its own: the help,
// the parsing and the man page check all come from that one definition.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tarnlift::cli {

// Runs a command once its options are parsed; returns the exit code.
using CommandRun = std::function<int()>;

struct CliCommand {
  const char* name;
  const char* summary;  // one line, for `tarnlift --help`
  // Declares the command's options and arguments on `command`, bound to
  // state that the returned function owns and runs with.
  CommandRun (*define)(CLI::App& command);
};

class CliCommandRegistrar {
 public:
  explicit CliCommandRegistrar(const CliCommand& command);
};

const std::vector<CliCommand>& cliCommands();

// Exit codes shared by the commands (the man page lists them).
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;  // the work failed, or could not start
inline constexpr int kExitUsage = 2;   // the command line itself is wrong

// Prints "tarnlift: <message>" on standard error and returns kExitUsage.
int usageError(const std::string& message);

// Prints "tarnlift: <message>" on standard error and returns kExitFailed.
int failure(const std::string& message);

// Starts and stops what the platform's sockets need (nothing on Linux).
void startSockets();

}  // namespace tarnlift::cli
