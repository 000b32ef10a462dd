#include <arpa/inet.h>
#include <errno.h>
#include <linux/filter.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "install/udp_socket.h"

namespace tarnlift::installsock {

Handle createUdp() { return ::socket(AF_INET, SOCK_DGRAM, 0); }

bool setBroadcast(Handle socket) {
  int on = 1;
  return ::setsockopt(static_cast<int>(socket), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) == 0;
}

bool setReuseAddress(Handle socket) {
  int on = 1;
  return ::setsockopt(static_cast<int>(socket), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0;
}

// Linux never turns ICMP port-unreachable into a receive error on an
// unconnected UDP socket: nothing to switch off.
void ignoreConnectionResets(Handle) {}

bool bindOnInterface(Handle socket, uint32_t address, const std::string& interfaceName, uint16_t port) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  local.sin_addr.s_addr = address;
  // A socket bound to the interface's unicast address does not hear
  // 255.255.255.255 on Linux. Bound to any address and tied to the device it
  // hears the broadcasts arriving there, and its own broadcasts leave through
  // that device without needing a route.
  if (!interfaceName.empty() &&
      ::setsockopt(static_cast<int>(socket), SOL_SOCKET, SO_BINDTODEVICE, interfaceName.c_str(),
                   static_cast<socklen_t>(interfaceName.size())) == 0) {
    local.sin_addr.s_addr = htonl(INADDR_ANY);
  }
  return ::bind(static_cast<int>(socket), reinterpret_cast<sockaddr*>(&local), sizeof local) == 0;
}

void dropDatagramsFrom(Handle socket, const uint8_t* mac) {
  // The filter sees the datagram from its UDP header on: the payload, and so
  // the header's source MAC, starts at offset 8.
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
  ::setsockopt(static_cast<int>(socket), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
}

int sendTo(Handle socket, const void* data, size_t length, uint32_t address, uint16_t port) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = address;
  return static_cast<int>(
      ::sendto(static_cast<int>(socket), data, length, 0, reinterpret_cast<sockaddr*>(&to), sizeof to));
}

int receiveFrom(Handle socket, void* buffer, size_t size, uint32_t& sourceAddress, uint16_t& sourcePort) {
  sockaddr_in from{};
  socklen_t fromLength = sizeof from;
  ssize_t count;
  do {
    count = ::recvfrom(static_cast<int>(socket), buffer, size, 0, reinterpret_cast<sockaddr*>(&from), &fromLength);
  } while (count < 0 && errno == EINTR);
  sourceAddress = from.sin_addr.s_addr;
  sourcePort = ntohs(from.sin_port);
  return static_cast<int>(count);
}

int waitReadable(Handle socket, uint64_t timeoutUs) {
  pollfd entry{static_cast<int>(socket), POLLIN, 0};
  int timeoutMs = timeoutUs == 0 ? -1 : static_cast<int>((timeoutUs + 999) / 1000);
  int result = ::poll(&entry, 1, timeoutMs);
  if (result < 0) return errno == EINTR ? 0 : -1;
  return result > 0 ? 1 : 0;
}

int receiveWithin(Handle socket, void* buffer, size_t size, uint64_t timeoutUs, uint64_t& armedUs,
                  uint32_t& sourceAddress, uint16_t& sourcePort) {
  // A receive time-out on the socket instead of a readiness wait before each
  // receive: one system call per datagram instead of two.
  if (timeoutUs != armedUs) {
    timeval limit{static_cast<time_t>(timeoutUs / 1000000), static_cast<suseconds_t>(timeoutUs % 1000000)};
    if (::setsockopt(static_cast<int>(socket), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
      int ready = waitReadable(socket, timeoutUs);
      if (ready <= 0) return ready == 0 ? kTimedOut : -1;
      return receiveFrom(socket, buffer, size, sourceAddress, sourcePort);
    }
    armedUs = timeoutUs;
  }
  sockaddr_in from{};
  socklen_t fromLength = sizeof from;
  ssize_t count =
      ::recvfrom(static_cast<int>(socket), buffer, size, 0, reinterpret_cast<sockaddr*>(&from), &fromLength);
  if (count < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? kTimedOut : -1;
  sourceAddress = from.sin_addr.s_addr;
  sourcePort = ntohs(from.sin_port);
  return static_cast<int>(count);
}

void closeSocket(Handle socket) { ::close(static_cast<int>(socket)); }

uint32_t lastError() { return static_cast<uint32_t>(errno); }

}  // namespace tarnlift::installsock
