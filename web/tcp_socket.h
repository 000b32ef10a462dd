// TCP for the web console's server: a listening socket and its accepted
// connections, with every wait bounded so that a thread never hangs on a
// slow or silent client. IPv4 only: the console listens on one address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace tarnlift::web {

class TcpConnection {
 public:
  virtual ~TcpConnection() = default;
  // Reads what is there, waiting up to timeoutMs for anything: the number of
  // bytes, 0 when the peer closed, -1 on error, -2 on time-out.
  virtual long read(char* buffer, size_t size, int timeoutMs) = 0;
  // Writes everything, each wait for room bounded by timeoutMs; false on
  // error, time-out or a closed peer.
  virtual bool writeAll(const char* data, size_t size, int timeoutMs) = 0;
  virtual const std::string& peer() const = 0;
};

// Connects to address (IPv4, host order) and port, waiting up to timeoutMs;
// null when it cannot. For tests and tools that talk to the server.
std::unique_ptr<TcpConnection> connectTcp(uint32_t address, uint16_t port, int timeoutMs);

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
  // The next connection, or null after timeoutMs without one.
  std::unique_ptr<TcpConnection> accept(int timeoutMs);
  void close();

 private:
  intptr_t handle_;
  uint16_t port_ = 0;
};

}  // namespace tarnlift::web
