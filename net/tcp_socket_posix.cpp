#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>

#include "net/udp_socket.h"
#include "net/tcp_socket.h"

namespace tarnlift::net {
namespace {

constexpr intptr_t kNone = -1;

// What a connection the process cannot take is told before it is closed.
constexpr char kRefusal[] =
    "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json; charset=utf-8\r\nContent-Length: 43\r\n"
    "Connection: close\r\n\r\n{\"error\":\"the server is busy: try it again\"}";

std::string addressText(const sockaddr_in& a) {
  char text[INET_ADDRSTRLEN] = {};
  ::inet_ntop(AF_INET, &a.sin_addr, text, sizeof text);
  return text;
}

// poll, again after a signal (a hang-up re-reads the packages) with what is
// left of the time.
int pollRetrying(pollfd* fds, nfds_t count, int timeoutMs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    int ready = ::poll(fds, count, timeoutMs);
    if (ready >= 0 || errno != EINTR) return ready;
    if (timeoutMs < 0) continue;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return 0;
    timeoutMs = static_cast<int>(left.count());
  }
}

class PosixConnection : public TcpConnection {
 public:
  PosixConnection(int fd, std::string address, uint16_t port)
      : fd_(fd), address_(std::move(address)), peer_(address_ + ":" + std::to_string(port)) {}
  ~PosixConnection() override { ::close(fd_); }

  long read(char* buffer, size_t size, int timeoutMs) override {
    pollfd p{fd_, POLLIN, 0};
    int ready = pollRetrying(&p, 1, timeoutMs);
    if (ready == 0) return -2;
    if (ready < 0) return -1;
    return receive(buffer, size);
  }

  bool writeAll(const char* data, size_t size, int timeoutMs) override {
    while (size > 0) {
      pollfd p{fd_, POLLOUT, 0};
      if (pollRetrying(&p, 1, timeoutMs) <= 0) return false;
      long n = send(data, size);
      if (n == -2) continue;
      if (n < 0) return false;
      data += n;
      size -= static_cast<size_t>(n);
    }
    return true;
  }

  long receive(char* buffer, size_t size) override {
    for (;;) {
      ssize_t n = ::recv(fd_, buffer, size, 0);
      if (n >= 0) return static_cast<long>(n);
      if (errno == EINTR) continue;
      return errno == EAGAIN || errno == EWOULDBLOCK ? -2 : -1;
    }
  }

  long send(const char* data, size_t size) override {
    for (;;) {
      ssize_t n = ::send(fd_, data, size, MSG_NOSIGNAL);
      if (n >= 0) return static_cast<long>(n);
      if (errno == EINTR) continue;
      return errno == EAGAIN || errno == EWOULDBLOCK ? -2 : -1;
    }
  }

  const std::string& peer() const override { return peer_; }
  const std::string& address() const override { return address_; }
  intptr_t handle() const override { return fd_; }

 private:
  int fd_;
  std::string address_;
  std::string peer_;
};

// A descriptor kept in reserve: when the process has none left, it is given
// up for a moment so that the waiting connection can be accepted, told that
// the server is busy, and closed, instead of staying in the queue and waking
// every poll.
int spareDescriptor = -1;

void keepSpare() {
  if (spareDescriptor < 0) spareDescriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

}  // namespace

TcpListener::TcpListener() : handle_(kNone) {}
TcpListener::~TcpListener() { close(); }

bool TcpListener::listen(uint32_t address, uint16_t port, std::string& error) {
  close();
  keepSpare();
  int fd = static_cast<int>(net::openPrivateSocket(SOCK_STREAM));
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
  if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(fd, 128) != 0) {
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

std::unique_ptr<TcpConnection> TcpListener::accept(int timeoutMs, bool* busy) {
  if (busy != nullptr) *busy = false;
  if (handle_ == kNone) return nullptr;
  int listener = static_cast<int>(handle_);
  if (timeoutMs > 0) {
    pollfd p{listener, POLLIN, 0};
    if (pollRetrying(&p, 1, timeoutMs) <= 0) return nullptr;
  }
  sockaddr_in a{};
  socklen_t length = sizeof a;
  int fd = ::accept4(listener, reinterpret_cast<sockaddr*>(&a), &length, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) {
    if (errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM) return nullptr;
    if (busy != nullptr) *busy = true;
    if (spareDescriptor >= 0) {
      ::close(spareDescriptor);
      spareDescriptor = -1;
      fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (fd >= 0) {
        ::send(fd, kRefusal, sizeof kRefusal - 1, MSG_NOSIGNAL);
        ::close(fd);
      }
      keepSpare();
    }
    return nullptr;
  }
  int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  try {
    return std::make_unique<PosixConnection>(fd, addressText(a), ntohs(a.sin_port));
  } catch (const std::bad_alloc&) {
    ::send(fd, kRefusal, sizeof kRefusal - 1, MSG_NOSIGNAL);
    ::close(fd);
    if (busy != nullptr) *busy = true;
    return nullptr;
  }
}

std::unique_ptr<TcpConnection> connectTcp(uint32_t address, uint16_t port, int timeoutMs, uint32_t from) {
  int fd = static_cast<int>(net::openPrivateSocket(SOCK_STREAM | SOCK_NONBLOCK));
  if (fd < 0) return nullptr;
  if (from != 0) {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(from);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
      ::close(fd);
      return nullptr;
    }
  }
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(address);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    pollfd p{fd, POLLOUT, 0};
    int error = 0;
    socklen_t length = sizeof error;
    if (errno != EINPROGRESS || pollRetrying(&p, 1, timeoutMs) <= 0 ||
        ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
      ::close(fd);
      return nullptr;
    }
  }
  return std::make_unique<PosixConnection>(fd, "server", port);
}

void TcpListener::close() {
  if (handle_ != kNone) ::close(static_cast<int>(handle_));
  handle_ = kNone;
}

int pollSockets(std::vector<PollEntry>& entries, int timeoutMs) {
  std::vector<pollfd> fds(entries.size());
  for (size_t i = 0; i < entries.size(); ++i) {
    short events = 0;
    if (entries[i].wantRead) events |= POLLIN;
    if (entries[i].wantWrite) events |= POLLOUT;
    fds[i] = {static_cast<int>(entries[i].handle), events, 0};
  }
  int ready = pollRetrying(fds.data(), fds.size(), timeoutMs);
  for (size_t i = 0; i < entries.size(); ++i) {
    short got = ready > 0 ? fds[i].revents : 0;
    bool broken = (got & (POLLERR | POLLHUP | POLLNVAL)) != 0;
    entries[i].readable = (got & POLLIN) != 0 || broken;
    entries[i].writable = (got & POLLOUT) != 0 || (broken && entries[i].wantWrite);
  }
  return ready;
}

SocketWaker::SocketWaker() : readHandle_(kNone), writeHandle_(kNone) {}

SocketWaker::~SocketWaker() {
  if (readHandle_ != kNone) ::close(static_cast<int>(readHandle_));
  if (writeHandle_ != kNone) ::close(static_cast<int>(writeHandle_));
}

bool SocketWaker::open(std::string& error) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
    error = std::strerror(errno);
    return false;
  }
  readHandle_ = fds[0];
  writeHandle_ = fds[1];
  return true;
}

void SocketWaker::wake() {
  char one = 1;
  // A full pipe already wakes the poll.
  while (::write(static_cast<int>(writeHandle_), &one, 1) < 0 && errno == EINTR) {
  }
}

void SocketWaker::drain() {
  char buffer[256];
  while (::read(static_cast<int>(readHandle_), buffer, sizeof buffer) > 0) {
  }
}

}  // namespace tarnlift::net
