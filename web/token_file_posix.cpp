// Whether the token file is open to other users: a token that anyone on
// the machine can read is no secret.
#include <sys/stat.h>

#include <cstdio>

#include "web/web_console.h"

namespace tarnlift::web {

std::string tokenFileExposure(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0 || (info.st_mode & (S_IRGRP | S_IROTH)) == 0) return {};
  char mode[8];
  std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
  return std::string("readable by ") + ((info.st_mode & S_IROTH) != 0 ? "others" : "its group") + " (mode " + mode +
         ")";
}

}  // namespace tarnlift::web
