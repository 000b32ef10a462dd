#include <windows.h>

#include <string>

#include "install/autorun_script.h"

namespace tarnlift::install {

std::string makeUniqueTempFile(const std::string& prefix) {
  char folder[MAX_PATH + 1];
  DWORD length = GetTempPathA(sizeof folder, folder);
  if (length == 0 || length > MAX_PATH) return {};
  char name[MAX_PATH + 1];
  if (GetTempFileNameA(folder, prefix.c_str(), 0, name) == 0) return {};
  return name;
}

}  // namespace tarnlift::install
