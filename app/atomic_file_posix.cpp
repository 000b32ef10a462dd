#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "app/atomic_file.h"

namespace tarnlift::app {

std::string temporaryPathFor(const std::string& path) { return path + ".tmp." + std::to_string(getpid()); }

bool processExists(uint32_t processId) {
  return processId != 0 && (kill(static_cast<pid_t>(processId), 0) == 0 || errno != ESRCH);
}

uint32_t replaceFileAtomically(const std::string& path, const std::string& bytes) {
  std::string temporary = temporaryPathFor(path);
  int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return static_cast<uint32_t>(errno);
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t written = write(fd, bytes.data() + done, bytes.size() - done);
    if (written < 0) {
      if (errno == EINTR) continue;
      int error = errno;
      close(fd);
      unlink(temporary.c_str());
      return static_cast<uint32_t>(error);
    }
    done += static_cast<size_t>(written);
  }
  if (fsync(fd) != 0 || close(fd) != 0) {
    int error = errno;
    unlink(temporary.c_str());
    return static_cast<uint32_t>(error);
  }
  if (rename(temporary.c_str(), path.c_str()) != 0) {
    int error = errno;
    unlink(temporary.c_str());
    return static_cast<uint32_t>(error);
  }
  return 0;
}

}  // namespace tarnlift::app
