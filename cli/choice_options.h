// The options `serve` and `disk` share: which packages go on (a folder, files
// to tick or a saved set) and the Install command's scripts and baud rate.
// One definition for both, so that the two commands take them alike.
#pragma once

#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "install/headless.h"

namespace tarnlift::cli {

struct ChoiceOptions {
  CLI::Option* packages = nullptr;
  CLI::Option* script = nullptr;
  CLI::Option* modeScript = nullptr;
  // --baud as given; the check reads it into the choices.
  std::shared_ptr<std::string> baudText = std::make_shared<std::string>();
};

// Declares --packages, --select, --set, --script, --mode-script and --baud on
// `app`, bound to `options`.
ChoiceOptions addChoiceOptions(CLI::App& app, install::HeadlessOptions& options);

// What is checked once all options are read: --set and --select exclude
// each other, the baud rate is a number (read into the choices), the
// scripts are switched on when named. kExitOk or the usage error's exit
// code.
int checkChoiceOptions(const ChoiceOptions& given, install::HeadlessOptions& options);

}  // namespace tarnlift::cli
