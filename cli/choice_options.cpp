#include "cli/choice_options.h"

#include <cstdlib>

#include "cli/command.h"

namespace tarnlift::cli {

bool parseUnsigned(const std::string& text, uint64_t& value, uint64_t limit) {
  char* end = nullptr;
  unsigned long long n = std::strtoull(text.c_str(), &end, 10);
  if (text.empty() || *end != 0 || text[0] == '-' || n > limit) return false;
  value = n;
  return true;
}

std::optional<int> takeChoiceOption(const std::vector<std::string>& arguments, size_t& i, HeadlessOptions& options,
                                    bool& havePackages) {
  const std::string& option = arguments[i];
  auto value = [&](std::string& out) {
    if (i + 1 >= arguments.size()) return false;
    out = arguments[++i];
    return true;
  };
  std::string text;
  if (option == "--packages") {
    if (!value(options.packageDir)) return usageError("--packages needs a folder");
    havePackages = true;
  } else if (option == "--select") {
    if (!value(text)) return usageError("--select needs a package file name");
    options.select.push_back(text);
  } else if (option == "--set") {
    if (!value(options.setName)) return usageError("--set needs a package set name");
  } else if (option == "--script") {
    if (!value(options.install.scriptPath)) return usageError("--script needs a file");
    options.install.scriptEnabled = true;
  } else if (option == "--mode-script") {
    if (!value(options.install.modeScriptPath)) return usageError("--mode-script needs a file");
    options.install.modeScriptEnabled = true;
  } else if (option == "--baud") {
    uint64_t baud = 0;
    if (!value(options.install.baudText) || !parseUnsigned(options.install.baudText, baud, 0xFFFFFFFFu)) {
      return usageError("--baud needs a number");
    }
  } else {
    return std::nullopt;
  }
  return kExitOk;
}

int checkChoiceOptions(const HeadlessOptions& options) {
  if (!options.setName.empty() && !options.select.empty()) return usageError("--set and --select exclude each other");
  return kExitOk;
}

}  // namespace tarnlift::cli
