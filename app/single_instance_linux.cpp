#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "app/failure.h"
#include "app/single_instance.h"

namespace tarnlift::app {

// An abstract Unix socket bound under the guard's name: the kernel releases
// it when the process ends however it ends, so there is never a stale lock
// to clean up. Abstract names belong to a network namespace, which is the
// scope that matters for a server that owns a segment's ports.
InstanceGuard acquireSingleInstance(const std::string& name) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) fatalFailure("CreateMutex() failed");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string abstractName = "tarnlift." + name;
  size_t length = std::min(abstractName.size(), sizeof address.sun_path - 1);
  std::memcpy(address.sun_path + 1, abstractName.data(), length);
  socklen_t size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) == 0) return InstanceGuard::Acquired;  // fd kept open
  int error = errno;
  close(fd);
  if (error == EADDRINUSE) return InstanceGuard::AlreadyRunning;
  fatalFailure("CreateMutex() failed", static_cast<uint32_t>(error));
}

}  // namespace tarnlift::app
