// Winsock half. Sockets are made with WSA_FLAG_NO_HANDLE_INHERIT and
// accepted ones are marked not inheritable, so a child process (an
// --on-finish command, the formatter) never holds the console's port or a
// client's connection. The waker is a UDP socket on the loopback that sends
// itself a byte: WSAPoll waits on sockets only.
#include <winsock2.h>
#include <ws2tcpip.h>

#include <new>
#include <string>

#include "net/udp_socket.h"
#include "net/tcp_socket.h"

namespace tarnlift::net {
namespace {

constexpr intptr_t kNone = static_cast<intptr_t>(INVALID_SOCKET);

constexpr char kRefusal[] =
    "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json; charset=utf-8\r\nContent-Length: 43\r\n"
    "Connection: close\r\n\r\n{\"error\":\"the server is busy: try it again\"}";

std::string lastErrorText() { return "socket error " + std::to_string(WSAGetLastError()); }

std::string addressText(const sockaddr_in& a) {
  char text[INET_ADDRSTRLEN] = {};
  ::inet_ntop(AF_INET, &a.sin_addr, text, sizeof text);
  return text;
}

void setNonBlocking(SOCKET s) {
  u_long on = 1;
  ::ioctlsocket(s, FIONBIO, &on);
}

SOCKET privateSocket(int type) { return static_cast<SOCKET>(net::openPrivateSocket(type)); }

class WinsockConnection : public TcpConnection {
 public:
  WinsockConnection(SOCKET s, std::string address, uint16_t port)
      : socket_(s), address_(std::move(address)), peer_(address_ + ":" + std::to_string(port)) {}
  ~WinsockConnection() override { ::closesocket(socket_); }

  long read(char* buffer, size_t size, int timeoutMs) override {
    WSAPOLLFD p{socket_, POLLRDNORM, 0};
    int ready = ::WSAPoll(&p, 1, timeoutMs);
    if (ready == 0) return -2;
    if (ready < 0) return -1;
    return receive(buffer, size);
  }

  bool writeAll(const char* data, size_t size, int timeoutMs) override {
    while (size > 0) {
      WSAPOLLFD p{socket_, POLLWRNORM, 0};
      if (::WSAPoll(&p, 1, timeoutMs) <= 0) return false;
      long n = send(data, size);
      if (n == -2) continue;
      if (n < 0) return false;
      data += n;
      size -= static_cast<size_t>(n);
    }
    return true;
  }

  long receive(char* buffer, size_t size) override {
    int n = ::recv(socket_, buffer, static_cast<int>(size > 65536 ? 65536 : size), 0);
    if (n != SOCKET_ERROR) return n;
    int error = WSAGetLastError();
    return error == WSAEWOULDBLOCK || error == WSAEINTR ? -2 : -1;
  }

  long send(const char* data, size_t size) override {
    int n = ::send(socket_, data, static_cast<int>(size > 65536 ? 65536 : size), 0);
    if (n != SOCKET_ERROR) return n;
    int error = WSAGetLastError();
    return error == WSAEWOULDBLOCK || error == WSAEINTR ? -2 : -1;
  }

  const std::string& peer() const override { return peer_; }
  const std::string& address() const override { return address_; }
  intptr_t handle() const override { return static_cast<intptr_t>(socket_); }

 private:
  SOCKET socket_;
  std::string address_;
  std::string peer_;
};

}  // namespace

TcpListener::TcpListener() : handle_(kNone) {}
TcpListener::~TcpListener() { close(); }

bool TcpListener::listen(uint32_t address, uint16_t port, std::string& error) {
  close();
  SOCKET s = privateSocket(SOCK_STREAM);
  if (s == INVALID_SOCKET) {
    error = lastErrorText();
    return false;
  }
  // Nobody else may take the same port while we hold it.
  BOOL exclusive = TRUE;
  ::setsockopt(s, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&exclusive), sizeof exclusive);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(address);
  if (::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(s, 128) != 0) {
    error = lastErrorText();
    ::closesocket(s);
    return false;
  }
  int length = sizeof a;
  ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &length);
  port_ = ntohs(a.sin_port);
  setNonBlocking(s);
  handle_ = static_cast<intptr_t>(s);
  return true;
}

std::unique_ptr<TcpConnection> TcpListener::accept(int timeoutMs, bool* busy) {
  if (busy != nullptr) *busy = false;
  if (handle_ == kNone) return nullptr;
  SOCKET listener = static_cast<SOCKET>(handle_);
  if (timeoutMs > 0) {
    WSAPOLLFD p{listener, POLLRDNORM, 0};
    if (::WSAPoll(&p, 1, timeoutMs) <= 0) return nullptr;
  }
  sockaddr_in a{};
  int length = sizeof a;
  SOCKET s = ::accept(listener, reinterpret_cast<sockaddr*>(&a), &length);
  if (s == INVALID_SOCKET) {
    int error = WSAGetLastError();
    if (busy != nullptr) *busy = error == WSAENOBUFS || error == WSAEMFILE;
    return nullptr;
  }
  SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
  setNonBlocking(s);
  BOOL noDelay = TRUE;
  ::setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&noDelay), sizeof noDelay);
  try {
    return std::make_unique<WinsockConnection>(s, addressText(a), ntohs(a.sin_port));
  } catch (const std::bad_alloc&) {
    ::send(s, kRefusal, sizeof kRefusal - 1, 0);
    ::closesocket(s);
    if (busy != nullptr) *busy = true;
    return nullptr;
  }
}

std::unique_ptr<TcpConnection> connectTcp(uint32_t address, uint16_t port, int timeoutMs, uint32_t from) {
  SOCKET s = privateSocket(SOCK_STREAM);
  if (s == INVALID_SOCKET) return nullptr;
  setNonBlocking(s);
  if (from != 0) {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(from);
    if (::bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
      ::closesocket(s);
      return nullptr;
    }
  }
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(address);
  if (::connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    WSAPOLLFD p{s, POLLWRNORM, 0};
    int error = 0;
    int length = sizeof error;
    if (WSAGetLastError() != WSAEWOULDBLOCK || ::WSAPoll(&p, 1, timeoutMs) <= 0 ||
        ::getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &length) != 0 || error != 0) {
      ::closesocket(s);
      return nullptr;
    }
  }
  return std::make_unique<WinsockConnection>(s, "server", port);
}

void TcpListener::close() {
  if (handle_ != kNone) ::closesocket(static_cast<SOCKET>(handle_));
  handle_ = kNone;
}

int pollSockets(std::vector<PollEntry>& entries, int timeoutMs) {
  std::vector<WSAPOLLFD> fds(entries.size());
  for (size_t i = 0; i < entries.size(); ++i) {
    SHORT events = 0;
    if (entries[i].wantRead) events |= POLLRDNORM;
    if (entries[i].wantWrite) events |= POLLWRNORM;
    fds[i] = {static_cast<SOCKET>(entries[i].handle), events, 0};
  }
  int ready = fds.empty() ? 0 : ::WSAPoll(fds.data(), static_cast<ULONG>(fds.size()), timeoutMs);
  if (fds.empty()) ::Sleep(static_cast<DWORD>(timeoutMs < 0 ? 0 : timeoutMs));
  for (size_t i = 0; i < entries.size(); ++i) {
    SHORT got = ready > 0 ? fds[i].revents : 0;
    bool broken = (got & (POLLERR | POLLHUP | POLLNVAL)) != 0;
    entries[i].readable = (got & POLLRDNORM) != 0 || broken;
    entries[i].writable = (got & POLLWRNORM) != 0 || (broken && entries[i].wantWrite);
  }
  return ready == SOCKET_ERROR ? -1 : ready;
}

SocketWaker::SocketWaker() : readHandle_(kNone), writeHandle_(kNone) {}

SocketWaker::~SocketWaker() {
  if (readHandle_ != kNone) ::closesocket(static_cast<SOCKET>(readHandle_));
}

bool SocketWaker::open(std::string& error) {
  SOCKET s = privateSocket(SOCK_DGRAM);
  if (s == INVALID_SOCKET) {
    error = lastErrorText();
    return false;
  }
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int length = sizeof a;
  // Connected to itself: wake() is a send, and nobody else can reach it.
  if (::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
      ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &length) != 0 ||
      ::connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    error = lastErrorText();
    ::closesocket(s);
    return false;
  }
  setNonBlocking(s);
  readHandle_ = static_cast<intptr_t>(s);
  writeHandle_ = readHandle_;
  return true;
}

void SocketWaker::wake() {
  char one = 1;
  ::send(static_cast<SOCKET>(writeHandle_), &one, 1, 0);
}

void SocketWaker::drain() {
  char buffer[256];
  while (::recv(static_cast<SOCKET>(readHandle_), buffer, sizeof buffer, 0) > 0) {
  }
}

}  // namespace tarnlift::net
