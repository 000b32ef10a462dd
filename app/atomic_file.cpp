#include "app/atomic_file.h"

#include <filesystem>

namespace tarnlift::app {

int removeStaleTemporaries(const std::string& path) {
  std::filesystem::path target(path);
  std::filesystem::path directory = target.parent_path().empty() ? std::filesystem::path(".") : target.parent_path();
  std::string prefix = target.filename().string() + ".tmp.";
  std::error_code error;
  int removed = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    std::string name = entry.path().filename().string();
    if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) continue;
    std::string digits = name.substr(prefix.size());
    if (digits.size() > 10 || digits.find_first_not_of("0123456789") != std::string::npos) continue;
    unsigned long long id = std::stoull(digits);
    if (id > 0xFFFFFFFFull || processExists(static_cast<uint32_t>(id))) continue;
    std::error_code ignored;
    if (std::filesystem::remove(entry.path(), ignored)) ++removed;
  }
  return removed;
}

}  // namespace tarnlift::app
