#include <winsock2.h>

#include "port_holder.h"

namespace tarnlift::testing {

namespace {
void startSockets() {
  static bool started = false;
  if (!started) {
    WSADATA data;
    WSAStartup(0x0202, &data);
    started = true;
  }
}
}  // namespace

PortHolder::PortHolder(uint16_t port) {
  startSockets();
  SOCKET s = ::socket(AF_INET, SOCK_DGRAM, 0);
  // Without exclusive use, a later socket with SO_REUSEADDR could share it.
  BOOL on = TRUE;
  ::setsockopt(s, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&on), sizeof on);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  local.sin_addr.s_addr = htonl(INADDR_ANY);
  holding_ = ::bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0;
  socket_ = static_cast<intptr_t>(s);
}

PortHolder::~PortHolder() { ::closesocket(static_cast<SOCKET>(socket_)); }

bool sendFromOtherPort(uint16_t port, const void* data, size_t length) {
  startSockets();
  SOCKET s = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = ::sendto(s, static_cast<const char*>(data), static_cast<int>(length), 0, reinterpret_cast<sockaddr*>(&to),
                     sizeof to) == static_cast<int>(length);
  ::closesocket(s);
  return ok;
}

}  // namespace tarnlift::testing
