#include <winsock2.h>
#include <ws2tcpip.h>

#include <string>

#include "net/udp_socket.h"
#include "web/tcp_socket.h"

namespace tarnlift::web {
namespace {

constexpr intptr_t kNone = static_cast<intptr_t>(INVALID_SOCKET);

std::string lastErrorText() { return "socket error " + std::to_string(WSAGetLastError()); }

class WinsockConnection : public TcpConnection {
 public:
  WinsockConnection(SOCKET s, std::string peer) : socket_(s), peer_(std::move(peer)) {}
  ~WinsockConnection() override { ::closesocket(socket_); }

  long read(char* buffer, size_t size, int timeoutMs) override {
    WSAPOLLFD p{socket_, POLLRDNORM, 0};
    int ready = ::WSAPoll(&p, 1, timeoutMs);
    if (ready == 0) return -2;
    if (ready < 0) return -1;
    int n = ::recv(socket_, buffer, static_cast<int>(size > 65536 ? 65536 : size), 0);
    if (n == SOCKET_ERROR) return WSAGetLastError() == WSAEWOULDBLOCK ? -2 : -1;
    return n;
  }

  bool writeAll(const char* data, size_t size, int timeoutMs) override {
    while (size > 0) {
      WSAPOLLFD p{socket_, POLLWRNORM, 0};
      if (::WSAPoll(&p, 1, timeoutMs) <= 0) return false;
      int n = ::send(socket_, data, static_cast<int>(size > 65536 ? 65536 : size), 0);
      if (n == SOCKET_ERROR) {
        if (WSAGetLastError() == WSAEWOULDBLOCK) continue;
        return false;
      }
      data += n;
      size -= static_cast<size_t>(n);
    }
    return true;
  }

  const std::string& peer() const override { return peer_; }

 private:
  SOCKET socket_;
  std::string peer_;
};

void setNonBlocking(SOCKET s) {
  u_long on = 1;
  ::ioctlsocket(s, FIONBIO, &on);
}

}  // namespace

TcpListener::TcpListener() : handle_(kNone) {}
TcpListener::~TcpListener() { close(); }

bool TcpListener::listen(uint32_t address, uint16_t port, std::string& error) {
  close();
  net::startSocketLibrary();
  SOCKET s = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
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
  if (::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(s, 64) != 0) {
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

std::unique_ptr<TcpConnection> TcpListener::accept(int timeoutMs) {
  if (handle_ == kNone) return nullptr;
  SOCKET listener = static_cast<SOCKET>(handle_);
  WSAPOLLFD p{listener, POLLRDNORM, 0};
  if (::WSAPoll(&p, 1, timeoutMs) <= 0) return nullptr;
  sockaddr_in a{};
  int length = sizeof a;
  SOCKET s = ::accept(listener, reinterpret_cast<sockaddr*>(&a), &length);
  if (s == INVALID_SOCKET) return nullptr;
  setNonBlocking(s);
  BOOL noDelay = TRUE;
  ::setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&noDelay), sizeof noDelay);
  char text[INET_ADDRSTRLEN] = {};
  ::inet_ntop(AF_INET, &a.sin_addr, text, sizeof text);
  return std::make_unique<WinsockConnection>(s, std::string(text) + ":" + std::to_string(ntohs(a.sin_port)));
}

std::unique_ptr<TcpConnection> connectTcp(uint32_t address, uint16_t port, int timeoutMs) {
  net::startSocketLibrary();
  SOCKET s = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (s == INVALID_SOCKET) return nullptr;
  setNonBlocking(s);
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
  return std::make_unique<WinsockConnection>(s, "server");
}

void TcpListener::close() {
  if (handle_ != kNone) ::closesocket(static_cast<SOCKET>(handle_));
  handle_ = kNone;
}

}  // namespace tarnlift::web
