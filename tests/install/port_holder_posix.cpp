#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "port_holder.h"

namespace tarnlift::testing {

PortHolder::PortHolder(uint16_t port) {
  int s = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  local.sin_addr.s_addr = htonl(INADDR_ANY);
  holding_ = ::bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0;
  socket_ = s;
}

PortHolder::~PortHolder() { ::close(static_cast<int>(socket_)); }

bool sendFromOtherPort(uint16_t port, const void* data, size_t length) {
  int s = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = ::sendto(s, data, length, 0, reinterpret_cast<sockaddr*>(&to), sizeof to) == static_cast<ssize_t>(length);
  ::close(s);
  return ok;
}

}  // namespace tarnlift::testing
