// TCP, which only the web console's server speaks: a listening socket, its
// accepted connections, a poll over many of them at once, and a waker that
// ends a poll from another thread. Nothing here blocks without a bound. IPv4 only:
// the console listens on one address. No socket is inherited by a child
// process (a command started after a router finished must not hold the
// port or a client's connection open after the server ends).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tarnlift::net {

class TcpConnection {
 public:
  virtual ~TcpConnection() = default;
  // Reads what is there, waiting up to timeoutMs for anything: the number of
  // bytes, 0 when the peer closed, -1 on error, -2 on time-out.
  virtual long read(char* buffer, size_t size, int timeoutMs) = 0;
  // Writes everything, each wait for room bounded by timeoutMs; false on
  // error, time-out or a closed peer.
  virtual bool writeAll(const char* data, size_t size, int timeoutMs) = 0;
  // Without waiting: the bytes read or sent, 0 when the peer closed (receive
  // only), -1 on error, -2 when the socket is not ready.
  virtual long receive(char* buffer, size_t size) = 0;
  virtual long send(const char* data, size_t size) = 0;
  // "A.B.C.D:PORT" of the other end.
  virtual const std::string& peer() const = 0;
  // "A.B.C.D" of the other end.
  virtual const std::string& address() const = 0;
  // The system's socket, for pollSockets.
  virtual intptr_t handle() const = 0;
};

// Connects to address (IPv4, host order) and port, waiting up to timeoutMs;
// null when it cannot. from (host order, 0: any) is the local address to
// connect from. For tests and tools that talk to the server.
std::unique_ptr<TcpConnection> connectTcp(uint32_t address, uint16_t port, int timeoutMs, uint32_t from = 0);

class TcpListener {
 public:
  TcpListener();
  ~TcpListener();
  TcpListener(const TcpListener&) = delete;
  TcpListener& operator=(const TcpListener&) = delete;

  // Listens on address (IPv4, host order) and port (0: one the system
  // picks). False with the system's text in error.
  bool listen(uint32_t address, uint16_t port, std::string& error);
  uint16_t port() const { return port_; }
  // The next connection, or null after timeoutMs without one (0: do not
  // wait). A connection that cannot be taken (the process has no
  // descriptors or memory left) is null too, with busy set: the caller must
  // not spin on it.
  std::unique_ptr<TcpConnection> accept(int timeoutMs, bool* busy = nullptr);
  intptr_t handle() const { return handle_; }
  void close();

 private:
  intptr_t handle_;
  uint16_t port_ = 0;
};

// One socket of a poll: what is asked, what came back.
struct PollEntry {
  intptr_t handle = -1;
  bool wantRead = false;
  bool wantWrite = false;
  bool readable = false;  // also set for a closed or failed peer: the read says which
  bool writable = false;
};

// Waits up to timeoutMs until one of the entries is ready (an interrupted
// wait counts as a time-out). The number of ready entries, or -1.
int pollSockets(std::vector<PollEntry>& entries, int timeoutMs);

// Ends a pollSockets wait from another thread: its handle becomes readable
// after wake() until drain().
class SocketWaker {
 public:
  SocketWaker();
  ~SocketWaker();
  SocketWaker(const SocketWaker&) = delete;
  SocketWaker& operator=(const SocketWaker&) = delete;
  bool open(std::string& error);
  void wake();
  void drain();
  intptr_t handle() const { return readHandle_; }

 private:
  intptr_t readHandle_;
  intptr_t writeHandle_;
};

}  // namespace tarnlift::net
