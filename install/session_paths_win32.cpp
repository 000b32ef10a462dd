#include "install/session_paths.h"

namespace tarnlift::install {

// Anything without a drive letter is relative, a leading '\' included: the
// rule of the design, kept exactly.
bool isRelativePackagePath(const std::string& path) { return !(path.size() > 1 && path[1] == ':'); }

std::string packageFilePath(const std::string& folder, const std::string& path) { return folder + "\\" + path; }

std::string remoteFileName(const std::string& path) {
  size_t slash = path.find_last_of('\\');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace tarnlift::install
