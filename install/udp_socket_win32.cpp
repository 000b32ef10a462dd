#include <winsock2.h>

#include "install/udp_socket.h"

#ifndef SIO_UDP_CONNRESET
#define SIO_UDP_CONNRESET _WSAIOW(IOC_VENDOR, 12)
#endif

namespace tarnlift::installsock {

Handle createUdp() {
  SOCKET s = ::socket(AF_INET, SOCK_DGRAM, 0);
  return s == INVALID_SOCKET ? kNoSocket : static_cast<Handle>(s);
}

bool setBroadcast(Handle socket) {
  BOOL on = TRUE;
  return ::setsockopt(static_cast<SOCKET>(socket), SOL_SOCKET, SO_BROADCAST, reinterpret_cast<const char*>(&on),
                      sizeof on) == 0;
}

bool setReuseAddress(Handle socket) {
  BOOL on = TRUE;
  return ::setsockopt(static_cast<SOCKET>(socket), SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&on),
                      sizeof on) == 0;
}

void ignoreConnectionResets(Handle socket) {
  BOOL report = FALSE;
  DWORD returned = 0;
  ::WSAIoctl(static_cast<SOCKET>(socket), SIO_UDP_CONNRESET, &report, sizeof report, nullptr, 0, &returned, nullptr,
             nullptr);
}

// Windows hands broadcasts arriving on an interface to a socket bound to
// that interface's unicast address, so the name is not needed.
bool bindOnInterface(Handle socket, uint32_t address, const std::string&, uint16_t port) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  local.sin_addr.s_addr = address;
  return ::bind(static_cast<SOCKET>(socket), reinterpret_cast<sockaddr*>(&local), sizeof local) == 0;
}

void dropDatagramsFrom(Handle, const uint8_t*) {}

int sendTo(Handle socket, const void* data, size_t length, uint32_t address, uint16_t port) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = address;
  return ::sendto(static_cast<SOCKET>(socket), static_cast<const char*>(data), static_cast<int>(length), 0,
                  reinterpret_cast<sockaddr*>(&to), sizeof to);
}

int receiveFrom(Handle socket, void* buffer, size_t size, uint32_t& sourceAddress, uint16_t& sourcePort) {
  sockaddr_in from{};
  int fromLength = sizeof from;
  int count = ::recvfrom(static_cast<SOCKET>(socket), static_cast<char*>(buffer), static_cast<int>(size), 0,
                         reinterpret_cast<sockaddr*>(&from), &fromLength);
  sourceAddress = from.sin_addr.s_addr;
  sourcePort = ntohs(from.sin_port);
  return count;
}

int waitReadable(Handle socket, uint64_t timeoutUs) {
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(static_cast<SOCKET>(socket), &readable);
  timeval limit;
  limit.tv_sec = static_cast<long>(timeoutUs / 1000000);
  limit.tv_usec = static_cast<long>(timeoutUs % 1000000);
  int result = ::select(0, &readable, nullptr, nullptr, timeoutUs == 0 ? nullptr : &limit);
  if (result == SOCKET_ERROR) return -1;
  return result > 0 ? 1 : 0;
}

int receiveWithin(Handle socket, void* buffer, size_t size, uint64_t timeoutUs, uint64_t&, uint32_t& sourceAddress,
                  uint16_t& sourcePort) {
  int ready = waitReadable(socket, timeoutUs);
  if (ready == 0) return kTimedOut;
  if (ready < 0) return -1;
  return receiveFrom(socket, buffer, size, sourceAddress, sourcePort);
}

void closeSocket(Handle socket) { ::closesocket(static_cast<SOCKET>(socket)); }

uint32_t lastError() { return static_cast<uint32_t>(::WSAGetLastError()); }

}  // namespace tarnlift::installsock
