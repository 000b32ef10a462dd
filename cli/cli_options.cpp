#include "cli/cli_options.h"

#include <algorithm>
#include <cstdlib>

namespace tarnlift::cli {

CLI::Option* addValue(CLI::App& app, const std::string& name, std::string& target, const std::string& valueName,
                      const std::string& meaning) {
  return app.add_option(name, target, meaning)->option_text(valueName)->allow_extra_args(false);
}

CLI::Option* addRepeated(CLI::App& app, const std::string& name, std::vector<std::string>& target,
                         const std::string& valueName, const std::string& meaning) {
  // One value per occurrence: "--select a.npk DIR" must leave DIR alone.
  return app.add_option(name, target, meaning)->option_text(valueName + " ...")->allow_extra_args(false);
}

CLI::Option* addSwitch(CLI::App& app, const std::string& name, bool& target, const std::string& meaning) {
  return app.add_flag(name, target, meaning);
}

void addOptionsFileOption(CLI::App& app) {
  static std::string expandedBeforeParsing;
  addValue(app, "--options-file", expandedBeforeParsing, "FILE",
           "Read options from FILE, one long option and its value per line, '#' for comments (a service's "
           "/etc/tarnlift/INSTANCE.conf).");
}

namespace {

size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

}  // namespace

std::string nearestOptionName(const CLI::App& app, const std::string& unknown) {
  // "--client-adress=1.2.3.4" is compared without its value.
  const std::string name = unknown.substr(0, unknown.find('='));
  std::string best;
  size_t bestDistance = 0;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& longName : option->get_lnames()) {
      const std::string candidate = "--" + longName;
      const size_t distance = editDistance(name, candidate);
      if (best.empty() || distance < bestDistance) {
        best = candidate;
        bestDistance = distance;
      }
    }
  }
  // A typo, a missing or doubled letter, a swapped pair: close. Anything
  // further away would be a guess.
  const size_t limit = std::max<size_t>(2, name.size() / 3);
  return bestDistance <= limit ? best : std::string();
}

bool parseUnsigned(const std::string& text, uint64_t& value, uint64_t limit) {
  char* end = nullptr;
  unsigned long long n = std::strtoull(text.c_str(), &end, 10);
  if (text.empty() || *end != 0 || text[0] == '-' || text[0] == '+' || n > limit) return false;
  value = n;
  return true;
}

}  // namespace tarnlift::cli
