// Where a session finds a file of the install request and under which name
// the router receives it. The rule follows the platform's own paths: on
// Windows a path is relative unless its second character is ':' and its name
// is what follows the last '\'; on Linux a path is relative unless it starts
// with '/' and its name is what follows the last '/'.
#pragma once

#include <string>

namespace tarnlift::install {

// True when path is read from the package folder rather than as given.
bool isRelativePackagePath(const std::string& path);
// The file a relative path names: the package folder, a separator, the path.
std::string packageFilePath(const std::string& folder, const std::string& path);
// The name the router is given for path.
std::string remoteFileName(const std::string& path);

}  // namespace tarnlift::install
