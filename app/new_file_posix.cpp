// POSIX half of the new-file writer: open(O_CREAT | O_EXCL), then write()
// until all is written, since a write may take less than it was given.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "app/new_file.h"

namespace tarnlift::app {

NewFileResult writeNewFile(const std::string& path, const uint8_t* data, size_t size, NewFileUse use) {
  NewFileResult result;
  const bool program = use == NewFileUse::Program;
  int fd =
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | (program ? O_NOFOLLOW : 0), program ? 0700 : 0644);
  if (fd < 0) return result;
  result.created = true;
  while (result.written < size) {
    ssize_t written = ::write(fd, data + result.written, size - result.written);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) break;
    result.written += static_cast<size_t>(written);
  }
  result.closed = ::close(fd) == 0;
  return result;
}

}  // namespace tarnlift::app
