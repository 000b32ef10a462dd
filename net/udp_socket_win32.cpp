#include <winsock2.h>
#include <ws2tcpip.h>

#include <mswsock.h>

#include "net/address.h"
#include "net/udp_socket.h"

namespace tarnlift::net {
namespace {

SOCKET native(intptr_t handle) { return static_cast<SOCKET>(handle); }
constexpr DWORD kUdpConnReset = 0x9800000C;

}  // namespace

void startSocketLibrary() {
  static const bool started = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
  }();
  (void)started;
}

UdpSocket& UdpSocket::operator=(UdpSocket&& other) noexcept {
  if (this != &other) {
    close();
    handle_ = other.handle_;
    other.handle_ = kNoHandle;
  }
  return *this;
}

intptr_t openPrivateSocket(int type) {
  startSocketLibrary();
  SOCKET s = ::WSASocketW(AF_INET, type, 0, nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  // Systems before Windows 7 SP1 refuse the flag: take the inheritance away
  // afterwards.
  if (s == INVALID_SOCKET) {
    s = ::WSASocketW(AF_INET, type, 0, nullptr, 0, WSA_FLAG_OVERLAPPED);
    if (s != INVALID_SOCKET) SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
  }
  return static_cast<intptr_t>(s);
}

bool UdpSocket::open() {
  close();
  SOCKET s = static_cast<SOCKET>(openPrivateSocket(SOCK_DGRAM));
  if (s == INVALID_SOCKET) return false;
  handle_ = static_cast<intptr_t>(s);
  return true;
}

void UdpSocket::close() {
  if (handle_ != kNoHandle) {
    closesocket(native(handle_));
    handle_ = kNoHandle;
  }
}

bool UdpSocket::setReuseAddress() {
  BOOL on = TRUE;
  return setsockopt(native(handle_), SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&on), sizeof on) == 0;
}

bool UdpSocket::setBroadcast() {
  BOOL on = TRUE;
  return setsockopt(native(handle_), SOL_SOCKET, SO_BROADCAST, reinterpret_cast<const char*>(&on), sizeof on) == 0;
}

void UdpSocket::ignoreConnectionResets() {
  BOOL report = FALSE;
  DWORD returned = 0;
  WSAIoctl(native(handle_), kUdpConnReset, &report, sizeof report, nullptr, 0, &returned, nullptr, nullptr);
}

bool UdpSocket::setNonBlocking() {
  u_long on = 1;
  return ioctlsocket(native(handle_), FIONBIO, &on) == 0;
}

bool UdpSocket::bind(uint32_t address, uint16_t port) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = address;
  local.sin_port = htons(port);
  return ::bind(native(handle_), reinterpret_cast<sockaddr*>(&local), sizeof local) == 0;
}

// Winsock delivers an interface's broadcasts to a socket bound to that
// interface's unicast address, so the device name is not needed here.
bool UdpSocket::bindOnInterface(uint32_t address, uint16_t port, const std::string&) { return bind(address, port); }

int UdpSocket::sendTo(const void* data, size_t size, uint32_t address, uint16_t port) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_addr.s_addr = address;
  peer.sin_port = htons(port);
  int sent = ::sendto(native(handle_), static_cast<const char*>(data), static_cast<int>(size), 0,
                      reinterpret_cast<sockaddr*>(&peer), sizeof peer);
  return sent == SOCKET_ERROR ? -1 : sent;
}

int UdpSocket::receiveFrom(void* buffer, size_t size, uint32_t* address, uint16_t* port) {
  sockaddr_in peer{};
  int length = sizeof peer;
  int received = ::recvfrom(native(handle_), static_cast<char*>(buffer), static_cast<int>(size), 0,
                            reinterpret_cast<sockaddr*>(&peer), &length);
  if (received == SOCKET_ERROR) {
    // A datagram longer than the buffer arrives cut short, as on Linux.
    if (WSAGetLastError() == WSAEMSGSIZE)
      received = static_cast<int>(size);
    else
      return -1;
  }
  if (address != nullptr) *address = peer.sin_addr.s_addr;
  if (port != nullptr) *port = ntohs(peer.sin_port);
  return received;
}

bool UdpSocket::wouldBlock() { return WSAGetLastError() == WSAEWOULDBLOCK; }

// Windows has no filter for a UDP socket's arrivals: the transport drops the
// copies of its own broadcasts itself.
void UdpSocket::dropDatagramsFrom(const uint8_t* /*mac*/) {}

int UdpSocket::receiveWithin(void* buffer, size_t size, uint64_t timeoutUs, uint32_t* address, uint16_t* port) {
  fd_set set;
  FD_ZERO(&set);
  FD_SET(native(handle_), &set);
  timeval limit{static_cast<long>(timeoutUs / 1000000), static_cast<long>(timeoutUs % 1000000)};
  int ready = select(0, &set, nullptr, nullptr, timeoutUs == 0 ? nullptr : &limit);
  if (ready == SOCKET_ERROR) return kWaitFailed;
  if (ready == 0) return kTimedOut;
  return receiveFrom(buffer, size, address, port);
}

uint32_t UdpSocket::lastError() { return static_cast<uint32_t>(WSAGetLastError()); }

uint16_t UdpSocket::localPort() const {
  sockaddr_in local{};
  int length = sizeof local;
  if (getsockname(native(handle_), reinterpret_cast<sockaddr*>(&local), &length) != 0) return 0;
  return ntohs(local.sin_port);
}

int UdpSocket::waitReadable(UdpSocket* const* sockets, size_t count, uint32_t milliseconds, bool* readable) {
  fd_set set;
  FD_ZERO(&set);
  for (size_t i = 0; i < count; ++i) {
    FD_SET(native(sockets[i]->handle_), &set);
    readable[i] = false;
  }
  timeval wait{static_cast<long>(milliseconds / 1000), static_cast<long>((milliseconds % 1000) * 1000)};
  int result = select(0, &set, nullptr, nullptr, &wait);
  if (result == SOCKET_ERROR) return -1;
  if (result == 0) return 0;
  int ready = 0;
  for (size_t i = 0; i < count; ++i) {
    readable[i] = FD_ISSET(native(sockets[i]->handle_), &set) != 0;
    if (readable[i]) ++ready;
  }
  return ready;
}

bool UdpSocket::waitReadable(uint32_t milliseconds) {
  UdpSocket* self = this;
  bool readable = false;
  return waitReadable(&self, 1, milliseconds, &readable) > 0;
}

}  // namespace tarnlift::net
