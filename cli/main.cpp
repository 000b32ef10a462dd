// tarnlift: the headless front end. Standard output carries only a
// command's own results; log lines go to standard error.
#include <algorithm>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "doctor/explain.h"
#include "app/failure.h"
#include "app/log.h"
#include "app/service_manager.h"
#include "app/version.h"
#include "cli/cli_options.h"
#include "cli/command.h"

namespace tarnlift::cli {
namespace {

bool gJournal = false;

// Failures written straight to standard error carry the error priority when
// the journal reads it, like the log's own failure lines.
const char* errorPrefix() { return gJournal ? "<3>" : ""; }

std::vector<CliCommand>& commandTable() {
  static std::vector<CliCommand> commands;
  return commands;
}

void printHelp(std::ostream& out) {
  out << "Tarnlift " << app::kVersionText << "\n"
      << "Installation server for Brisvane routers (headless front end).\n\n"
      << "usage: tarnlift COMMAND [OPTIONS] [ARGUMENTS]\n"
      << "       tarnlift COMMAND --help     the command's options, their meanings and defaults\n"
      << "       tarnlift --version\n\n"
      << "commands:\n";
  std::vector<CliCommand> sorted = commandTable();
  std::sort(sorted.begin(), sorted.end(),
            [](const CliCommand& a, const CliCommand& b) { return std::string(a.name) < b.name; });
  for (const CliCommand& command : sorted) out << "  " << command.name << "\n      " << command.summary << "\n";
  out << "\nEvery command also takes --quiet (no log lines) and --verbose (log lines with the seconds since start).\n"
      << "Log lines go to standard error; results go to standard output.\n"
      << "Exit codes: 0 done, 1 failed (or could not start), 2 the command line is wrong.\n";
}

// A fatal failure has no window to show here: the message goes to
// standard error after the log line.
void presentFatal(const std::string& text) { std::cerr << errorPrefix() << "Error: " << text << std::endl; }

// The subcommand the words named (bootimage's actions), or the command.
const CLI::App* deepestParsed(const CLI::App& app) {
  for (const CLI::App* sub : app.get_subcommands()) return deepestParsed(*sub);
  return &app;
}

// "serve", or "bootimage list" for an action of a command.
std::string commandPath(const CLI::App& app) {
  std::string path = app.get_name();
  for (const CLI::App* parent = app.get_parent(); parent != nullptr; parent = parent->get_parent()) {
    path = parent->get_name() + " " + path;
  }
  return path.rfind("tarnlift ", 0) == 0 ? path.substr(9) : path;
}

// The "Usage:" line of the command's help, as CLI11 makes it, with the
// whole command in front (CLI11 names an action alone).
std::string usageLine(const CLI::App& app) {
  std::istringstream help(app.help());
  std::string line;
  const std::string head = "Usage: " + app.get_name();
  while (std::getline(help, line)) {
    if (line.rfind(head, 0) == 0) return "usage: tarnlift " + commandPath(app) + line.substr(head.size());
  }
  return "usage: tarnlift " + commandPath(app);
}

int wrongCommandLine(const CLI::App& app, const std::string& message) {
  std::cerr << "tarnlift: " << commandPath(app) << ": " << message << "\n"
            << usageLine(app) << "\n"
            << "(tarnlift " << commandPath(app) << " --help lists the options)\n";
  return kExitUsage;
}

// CLI11's own words for a missing value ("--baud: 1 required TEXT missing")
// become ours ("--baud needs a value: N").
std::string parseErrorText(const CLI::App& app, const CLI::ParseError& error) {
  const std::string what = error.what();
  const size_t colon = what.find(": ");
  if (error.get_name() == "ArgumentMismatch" && colon != std::string::npos && what.rfind("--", 0) == 0) {
    const std::string name = what.substr(0, colon);
    for (const CLI::Option* option : app.get_options()) {
      for (const std::string& longName : option->get_lnames()) {
        if ("--" + longName == name) return name + " needs a value: " + option->get_option_text();
      }
    }
  }
  return what;
}

// "--options-file FILE" stands for the options written in FILE, one long
// option per line with its value after a space ("--client-address
// 192.168.88.254"); empty lines and lines starting with "#" are skipped. A
// service's options live in such a file, one per segment. False with a
// message when the file cannot be read or holds something else.
bool expandOptionsFiles(std::vector<std::string>& words, std::string& error) {
  std::vector<std::string> expanded;
  for (size_t i = 0; i < words.size(); ++i) {
    std::string path;
    if (words[i] == "--options-file" && i + 1 < words.size()) {
      path = words[++i];
    } else if (words[i].rfind("--options-file=", 0) == 0) {
      path = words[i].substr(15);
    } else {
      expanded.push_back(words[i]);
      continue;
    }
    std::ifstream file(path);
    if (!file) {
      error = "cannot read the options file " + path;
      return false;
    }
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
      while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) line.pop_back();
      const size_t start = line.find_first_not_of(" \t");
      if (start == std::string::npos || line[start] == '#') continue;
      line = line.substr(start);
      if (line.rfind("--", 0) != 0 || line == "--") {
        error = path + ":" + std::to_string(number) + ": not a long option: " + line;
        return false;
      }
      const size_t space = line.find_first_of(" \t");
      expanded.push_back(line.substr(0, space));
      if (space != std::string::npos) {
        const size_t value = line.find_first_not_of(" \t", space);
        expanded.push_back(line.substr(value));
      }
    }
  }
  words = std::move(expanded);
  return true;
}

int runCommand(const CliCommand& command, int argc, char** argv) {
  CLI::App app{command.summary, std::string("tarnlift ") + command.name};
  app.set_help_flag("-h,--help", "Print this help and exit.");
  app.allow_extras(true);
  // "/srv/packages" is a path on every platform, never an option, also in
  // the Windows build (where CLI11 would take "/x" for an option by default).
  app.allow_windows_style_options(false);
  app.option_defaults()->always_capture_default(false);
  app.get_formatter()->column_width(34);
  bool quiet = false;
  bool verbose = false;
  CommandRun run = command.define(app);
  app.add_flag("--quiet,-q", quiet, "No log lines on standard error; results and failures still show.")
      ->group("Log lines");
  app.add_flag("--verbose,-v", verbose, "Log lines with the seconds since start in front.")->group("Log lines");
  std::vector<std::string> words(argv + 2, argv + argc);
  std::string fileError;
  if (!expandOptionsFiles(words, fileError)) return wrongCommandLine(app, fileError);
  try {
    // CLI11 takes the words last first.
    std::reverse(words.begin(), words.end());
    app.parse(words);
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return kExitOk;
  } catch (const CLI::CallForAllHelp&) {
    std::cout << app.help("", CLI::AppFormatMode::All);
    return kExitOk;
  } catch (const CLI::ParseError& error) {
    const CLI::App& where = *deepestParsed(app);
    return wrongCommandLine(where, parseErrorText(where, error));
  }
  const CLI::App& where = *deepestParsed(app);
  for (const std::string& extra : app.remaining(true)) {
    if (extra == "--") continue;
    if (extra.size() > 1 && extra[0] == '-') {
      std::string message = "unknown option '" + extra.substr(0, extra.find('=')) + "'";
      const std::string nearest = nearestOptionName(where, extra);
      if (!nearest.empty()) message += " (did you mean " + nearest + "?)";
      return wrongCommandLine(where, message);
    }
    return wrongCommandLine(where, "unexpected argument '" + extra + "'");
  }
  if (quiet && verbose) return wrongCommandLine(app, "--quiet and --verbose exclude each other");
  if (quiet) app::setLogDetail(app::LogDetail::Quiet);
  if (verbose) app::setLogDetail(app::LogDetail::Verbose);
  startSockets();
  return run();
}

CommandRun defineVersion(CLI::App&) {
  return [] {
    std::cout << app::kVersionText << "\n";
    return kExitOk;
  };
}

const CliCommandRegistrar versionCommand({"version", "Print the version and build time.", &defineVersion});

}  // namespace

CliCommandRegistrar::CliCommandRegistrar(const CliCommand& command) { commandTable().push_back(command); }

const std::vector<CliCommand>& cliCommands() { return commandTable(); }

int usageError(const std::string& message) {
  std::cerr << errorPrefix() << "tarnlift: " << message << "\n";
  return kExitUsage;
}

int failure(const std::string& message) {
  std::cerr << errorPrefix() << "tarnlift: " << message << std::endl;
  return kExitFailed;
}

}  // namespace tarnlift::cli

int main(int argc, char** argv) {
  using namespace tarnlift;
  using namespace tarnlift::cli;
  app::setLogStream(std::cerr);
  app::setFatalPresenter(&presentFatal);
  // A server that cannot bind its ports says who holds them.
  doctor::explainFatalFailures();
  gJournal = app::standardErrorIsJournal();
  app::setLogPriorityPrefixes(gJournal);
  if (argc < 2) {
    printHelp(std::cerr);
    return kExitUsage;
  }
  const std::string name = argv[1];
  if (name == "--help" || name == "-h" || name == "help") {
    printHelp(std::cout);
    return kExitOk;
  }
  if (name == "--version") {
    std::cout << app::kVersionText << "\n";
    return kExitOk;
  }
  for (const CliCommand& command : cliCommands()) {
    if (name == command.name) return runCommand(command, argc, argv);
  }
  return usageError("unknown command '" + name + "' (try: tarnlift --help)");
}
