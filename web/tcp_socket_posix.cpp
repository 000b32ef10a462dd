#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "web/tcp_socket.h"

namespace tarnlift::web {
namespace {

constexpr intptr_t kNone = -1;

class PosixConnection : public TcpConnection {
 public:
  PosixConnection(int fd, std::string peer) : fd_(fd), peer_(std::move(peer)) {}
  ~PosixConnection() override { ::close(fd_); }

  long read(char* buffer, size_t size, int timeoutMs) override {
    pollfd p{fd_, POLLIN, 0};
    int ready = ::poll(&p, 1, timeoutMs);
    if (ready == 0) return -2;
    if (ready < 0) return errno == EINTR ? -2 : -1;
    ssize_t n = ::recv(fd_, buffer, size, 0);
    if (n < 0) return errno == EAGAIN || errno == EINTR ? -2 : -1;
    return static_cast<long>(n);
  }

  bool writeAll(const char* data, size_t size, int timeoutMs) override {
    while (size > 0) {
      pollfd p{fd_, POLLOUT, 0};
      int ready = ::poll(&p, 1, timeoutMs);
      if (ready <= 0) return false;
      ssize_t n = ::send(fd_, data, size, MSG_NOSIGNAL);
      if (n < 0) {
        if (errno == EAGAIN || errno == EINTR) continue;
        return false;
      }
      data += n;
      size -= static_cast<size_t>(n);
    }
    return true;
  }

  const std::string& peer() const override { return peer_; }

 private:
  int fd_;
  std::string peer_;
};

}  // namespace

TcpListener::TcpListener() : handle_(kNone) {}
TcpListener::~TcpListener() { close(); }

bool TcpListener::listen(uint32_t address, uint16_t port, std::string& error) {
  close();
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = std::strerror(errno);
    return false;
  }
  int one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(address);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(fd, 64) != 0) {
    error = std::strerror(errno);
    ::close(fd);
    return false;
  }
  socklen_t length = sizeof a;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length);
  port_ = ntohs(a.sin_port);
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
  handle_ = fd;
  return true;
}

std::unique_ptr<TcpConnection> TcpListener::accept(int timeoutMs) {
  if (handle_ == kNone) return nullptr;
  pollfd p{static_cast<int>(handle_), POLLIN, 0};
  if (::poll(&p, 1, timeoutMs) <= 0) return nullptr;
  sockaddr_in a{};
  socklen_t length = sizeof a;
  int fd = ::accept4(static_cast<int>(handle_), reinterpret_cast<sockaddr*>(&a), &length, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) return nullptr;
  int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  char text[INET_ADDRSTRLEN] = {};
  ::inet_ntop(AF_INET, &a.sin_addr, text, sizeof text);
  return std::make_unique<PosixConnection>(fd, std::string(text) + ":" + std::to_string(ntohs(a.sin_port)));
}

std::unique_ptr<TcpConnection> connectTcp(uint32_t address, uint16_t port, int timeoutMs) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return nullptr;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(address);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    pollfd p{fd, POLLOUT, 0};
    int error = 0;
    socklen_t length = sizeof error;
    if (errno != EINPROGRESS || ::poll(&p, 1, timeoutMs) <= 0 ||
        ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
      ::close(fd);
      return nullptr;
    }
  }
  return std::make_unique<PosixConnection>(fd, "server");
}

void TcpListener::close() {
  if (handle_ != kNone) ::close(static_cast<int>(handle_));
  handle_ = kNone;
}

}  // namespace tarnlift::web
