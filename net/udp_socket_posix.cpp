#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "app/log.h"
#include "net/address.h"
#include "net/udp_socket.h"

namespace tarnlift::net {

void startSocketLibrary() {}

UdpSocket& UdpSocket::operator=(UdpSocket&& other) noexcept {
  if (this != &other) {
    close();
    handle_ = other.handle_;
    armedTimeoutUs_ = other.armedTimeoutUs_;
    other.handle_ = kNoHandle;
  }
  return *this;
}

intptr_t openPrivateSocket(int type) { return ::socket(AF_INET, type | SOCK_CLOEXEC, 0); }

bool UdpSocket::open() {
  close();
  intptr_t fd = openPrivateSocket(SOCK_DGRAM);
  if (fd < 0) return false;
  handle_ = fd;
  return true;
}

void UdpSocket::close() {
  if (handle_ != kNoHandle) {
    ::close(static_cast<int>(handle_));
    handle_ = kNoHandle;
    armedTimeoutUs_ = 0;
  }
}

bool UdpSocket::setReuseAddress() {
  int on = 1;
  return setsockopt(static_cast<int>(handle_), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0;
}

bool UdpSocket::setBroadcast() {
  int on = 1;
  return setsockopt(static_cast<int>(handle_), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) == 0;
}

void UdpSocket::ignoreConnectionResets() {}

bool UdpSocket::setNonBlocking() {
  int fd = static_cast<int>(handle_);
  int flags = fcntl(fd, F_GETFL, 0);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

bool UdpSocket::bind(uint32_t address, uint16_t port) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = address;
  local.sin_port = htons(port);
  return ::bind(static_cast<int>(handle_), reinterpret_cast<sockaddr*>(&local), sizeof local) == 0;
}

bool UdpSocket::bindOnInterface(uint32_t address, uint16_t port, const std::string& device) {
  // A socket bound to a unicast address never sees datagrams sent to
  // 255.255.255.255 on Linux, so the socket is tied to the device instead
  // and takes every address arriving there.
  if (!device.empty()) {
    if (setsockopt(static_cast<int>(handle_), SOL_SOCKET, SO_BINDTODEVICE, device.c_str(),
                   static_cast<socklen_t>(device.size())) == 0) {
      return bind(0, port);
    }
    app::logLine() << "bind to device " << device << " failed (errno " << errno << "), binding " << formatIpv4(address)
                   << " only: broadcasts will not be heard";
  }
  return bind(address, port);
}

int UdpSocket::sendTo(const void* data, size_t size, uint32_t address, uint16_t port) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_addr.s_addr = address;
  peer.sin_port = htons(port);
  ssize_t sent =
      ::sendto(static_cast<int>(handle_), data, size, MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&peer), sizeof peer);
  return sent < 0 ? -1 : static_cast<int>(sent);
}

int UdpSocket::receiveFrom(void* buffer, size_t size, uint32_t* address, uint16_t* port) {
  sockaddr_in peer{};
  socklen_t length = sizeof peer;
  ssize_t received;
  do {
    received = ::recvfrom(static_cast<int>(handle_), buffer, size, 0, reinterpret_cast<sockaddr*>(&peer), &length);
  } while (received < 0 && errno == EINTR);
  if (received < 0) return -1;
  if (address != nullptr) *address = peer.sin_addr.s_addr;
  if (port != nullptr) *port = ntohs(peer.sin_port);
  return static_cast<int>(received);
}

void UdpSocket::dropDatagramsFrom(const uint8_t* mac) {
  // The filter sees the datagram from its UDP header on: the payload, and so
  // the installation header's source MAC, starts at offset 8.
  uint32_t high = static_cast<uint32_t>(mac[0]) << 24 | static_cast<uint32_t>(mac[1]) << 16 |
                  static_cast<uint32_t>(mac[2]) << 8 | mac[3];
  uint32_t low = static_cast<uint32_t>(mac[4]) << 8 | mac[5];
  sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 8),  // first four bytes of the source MAC
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, high, 0, 3), BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12),  // last two bytes
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, low, 0, 1),  BPF_STMT(BPF_RET | BPF_K, 0),            // ours: drop
      BPF_STMT(BPF_RET | BPF_K, 0xFFFFFFFFu),  // anything else: keep whole
  };
  sock_fprog program{static_cast<unsigned short>(sizeof code / sizeof code[0]), code};
  setsockopt(static_cast<int>(handle_), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
}

int UdpSocket::receiveWithin(void* buffer, size_t size, uint64_t timeoutUs, uint32_t* address, uint16_t* port) {
  // A receive time-out on the socket instead of a readiness wait before each
  // receive: one system call per datagram instead of two.
  if (timeoutUs != armedTimeoutUs_) {
    timeval limit{static_cast<time_t>(timeoutUs / 1000000), static_cast<suseconds_t>(timeoutUs % 1000000)};
    if (setsockopt(static_cast<int>(handle_), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
      uint32_t milliseconds = timeoutUs == 0 ? 0xFFFFFFFFu : static_cast<uint32_t>((timeoutUs + 999) / 1000);
      if (!waitReadable(milliseconds)) return kTimedOut;
      return receiveFrom(buffer, size, address, port);
    }
    armedTimeoutUs_ = timeoutUs;
  }
  sockaddr_in peer{};
  socklen_t length = sizeof peer;
  ssize_t received =
      ::recvfrom(static_cast<int>(handle_), buffer, size, 0, reinterpret_cast<sockaddr*>(&peer), &length);
  if (received < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? kTimedOut : -1;
  if (address != nullptr) *address = peer.sin_addr.s_addr;
  if (port != nullptr) *port = ntohs(peer.sin_port);
  return static_cast<int>(received);
}

uint32_t UdpSocket::lastError() { return static_cast<uint32_t>(errno); }

bool UdpSocket::wouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK; }

uint16_t UdpSocket::localPort() const {
  sockaddr_in local{};
  socklen_t length = sizeof local;
  if (getsockname(static_cast<int>(handle_), reinterpret_cast<sockaddr*>(&local), &length) != 0) return 0;
  return ntohs(local.sin_port);
}

int UdpSocket::waitReadable(UdpSocket* const* sockets, size_t count, uint32_t milliseconds, bool* readable) {
  std::vector<pollfd> fds(count);
  for (size_t i = 0; i < count; ++i) {
    fds[i].fd = static_cast<int>(sockets[i]->handle_);
    fds[i].events = POLLIN;
    readable[i] = false;
  }
  int result;
  do {
    result = poll(fds.data(), fds.size(), static_cast<int>(milliseconds));
  } while (result < 0 && errno == EINTR);
  if (result <= 0) return result;
  int ready = 0;
  for (size_t i = 0; i < count; ++i) {
    readable[i] = (fds[i].revents & (POLLIN | POLLERR)) != 0;
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
