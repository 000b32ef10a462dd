#include "install/session_paths.h"

namespace tarnlift::install {

bool isRelativePackagePath(const std::string& path) { return path.empty() || path[0] != '/'; }

// One '/' between the two, also when the folder already ends in one.
std::string packageFilePath(const std::string& folder, const std::string& path) {
  if (!folder.empty() && folder.back() == '/') return folder + path;
  return folder + "/" + path;
}

std::string remoteFileName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace tarnlift::install
