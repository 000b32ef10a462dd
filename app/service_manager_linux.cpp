#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/service_manager.h"

namespace tarnlift::app {

void notifyServiceManager(const std::string& state) {
  const char* name = std::getenv("NOTIFY_SOCKET");
  if (name == nullptr || name[0] == 0) return;
  const size_t length = std::strlen(name);
  sockaddr_un address{};
  if (length >= sizeof address.sun_path || (name[0] != '/' && name[0] != '@')) return;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, name, length);
  if (name[0] == '@') address.sun_path[0] = 0;  // abstract namespace
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  const socklen_t size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  // A manager that is gone or slow must not hold up the server: the send
  // does not wait, and its failure changes nothing.
  (void)::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&address),
                 size);
  ::close(fd);
}

bool standardErrorIsJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  if (stream == nullptr) return false;
  char* colon = nullptr;
  const unsigned long long device = std::strtoull(stream, &colon, 10);
  if (colon == stream || *colon != ':') return false;
  char* end = nullptr;
  const unsigned long long inode = std::strtoull(colon + 1, &end, 10);
  if (end == colon + 1 || *end != 0) return false;
  struct stat status {};
  if (::fstat(STDERR_FILENO, &status) != 0) return false;
  // A child whose standard error was redirected inherits the variable: only
  // the very stream the journal handed over counts.
  return static_cast<unsigned long long>(status.st_dev) == device &&
         static_cast<unsigned long long>(status.st_ino) == inode;
}

}  // namespace tarnlift::app
