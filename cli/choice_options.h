// The options `serve` and `disk` share: which packages go on (a folder, files
// to tick or a saved set) and the Install command's scripts and baud rate.
// One parser for both, so that the two commands take them alike.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "install/headless.h"

namespace tarnlift::cli {

// A decimal number of at most `limit`; false for empty, signed or other text.
bool parseUnsigned(const std::string& text, uint64_t& value, uint64_t limit);

// Takes arguments[i] (and its value, advancing i) when it is --packages,
// --select, --set, --script, --mode-script or --baud. Empty when the option
// is not one of these; otherwise kExitOk, or the usage error's exit code.
// `havePackages` tells that --packages was given.
std::optional<int> takeChoiceOption(const std::vector<std::string>& arguments, size_t& i, HeadlessOptions& options,
                                    bool& havePackages);

// What is checked once all options are read: --set and --select exclude each
// other. kExitOk or the usage error's exit code.
int checkChoiceOptions(const HeadlessOptions& options);

}  // namespace tarnlift::cli
