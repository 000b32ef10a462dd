#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "install/autorun_script.h"

namespace tarnlift::install {

std::string makeUniqueTempFile(const std::string& prefix) {
  const char* folder = std::getenv("TMPDIR");
  std::string pattern = std::string(folder != nullptr && folder[0] != 0 ? folder : "/tmp") + "/" + prefix + "XXXXXX";
  int fd = ::mkstemp(pattern.data());
  if (fd < 0) return {};
  ::close(fd);
  return pattern;
}

}  // namespace tarnlift::install
