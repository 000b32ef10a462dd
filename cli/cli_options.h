// Small helpers over CLI11 that every command uses, so that options read
// alike everywhere: a value option shows its value's name, a repeatable
// option takes exactly one value each time it is given, and the meaning
// text carries the default.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace tarnlift::cli {

// --name VALUE (or --name=VALUE), bound to `target`.
CLI::Option* addValue(CLI::App& app, const std::string& name, std::string& target, const std::string& valueName,
                      const std::string& meaning);

// --name VALUE, given any number of times; the values in order.
CLI::Option* addRepeated(CLI::App& app, const std::string& name, std::vector<std::string>& target,
                         const std::string& valueName, const std::string& meaning);

// --name, a switch.
CLI::Option* addSwitch(CLI::App& app, const std::string& name, bool& target, const std::string& meaning);

// --options-file FILE, for the help and the documentation check: the file's
// options are put in its place before the command line is parsed.
void addOptionsFileOption(CLI::App& app);

// The option names that `app` knows closest to `unknown` (edit distance), for
// "did you mean". Empty when nothing is close.
std::string nearestOptionName(const CLI::App& app, const std::string& unknown);

// A decimal number of at most `limit`; false for empty, signed or other text.
bool parseUnsigned(const std::string& text, uint64_t& value, uint64_t limit);

}  // namespace tarnlift::cli
