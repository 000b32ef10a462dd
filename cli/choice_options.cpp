#include "cli/choice_options.h"

#include "cli/cli_options.h"
#include "cli/command.h"

namespace tarnlift::cli {

ChoiceOptions addChoiceOptions(CLI::App& app, install::HeadlessOptions& options) {
  ChoiceOptions given;
  const char* group = "Packages and scripts";
  given.packages = addValue(app, "--packages", options.packageDir, "DIR",
                            "The package folder (default: the folder of the last run, or the current one).")
                       ->group(group);
  addRepeated(app, "--select", options.select, "FILE",
              "Tick this package file, as a click on its box does (dependencies follow); repeatable.")
      ->group(group);
  addValue(app, "--set", options.setName, "NAME", "Install the saved package set NAME (not with --select).")
      ->group(group);
  given.script = addValue(app, "--script", options.choices.scriptPath, "FILE",
                          "Run this configure script after installing (default: none).")
                     ->group(group);
  given.modeScript = addValue(app, "--mode-script", options.choices.modeScriptPath, "FILE",
                              "Send this mode script (default: none).")
                         ->group(group);
  addValue(app, "--baud", *given.baudText, "N", "Console baud rate (default: the router's own).")
      ->group(group);
  return given;
}

int checkChoiceOptions(const ChoiceOptions& given, install::HeadlessOptions& options) {
  if (!options.setName.empty() && !options.select.empty()) return usageError("--set and --select exclude each other");
  uint64_t baud = 0;
  if (!given.baudText->empty() && !parseUnsigned(*given.baudText, baud, 0xFFFFFFFFu)) {
    return usageError("--baud needs a number");
  }
  options.choices.baudRate = static_cast<uint32_t>(baud);
  if (given.packages->count() > 0 && options.packageDir.empty()) return usageError("--packages needs a folder");
  options.choices.scriptEnabled = given.script->count() > 0;
  options.choices.modeScriptEnabled = given.modeScript->count() > 0;
  if (options.choices.scriptEnabled && options.choices.scriptPath.empty()) return usageError("--script needs a file");
  if (options.choices.modeScriptEnabled && options.choices.modeScriptPath.empty()) {
    return usageError("--mode-script needs a file");
  }
  return kExitOk;
}

}  // namespace tarnlift::cli
