// The web console's HTTP/1.1 server: one thread accepts, each connection
// gets a thread of its own, up to a fixed number (beyond it a client gets
// 503 at once). Every read and write has a time-out, a request head must
// arrive whole within a few seconds, and bodies over 1 MiB are refused
// before they are read, so slow or hostile clients cost a bounded amount of
// memory and threads and never touch the installer's or the boot server's
// threads. Keep-alive is kept; a streamed response closes its connection.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "web/http_message.h"
#include "web/tcp_socket.h"

namespace tarnlift::web {

using HttpHandler = std::function<HttpResponse(const HttpRequest& request)>;

struct HttpLimits {
  size_t maxConnections = 64;
  int headTimeoutMs = 5000;   // the whole request head
  int bodyTimeoutMs = 10000;  // the whole body
  int idleTimeoutMs = 15000;  // between requests on a kept-alive connection
  int writeTimeoutMs = 5000;  // each wait for room to write
  int maxRequestsPerConnection = 1000;
};

class HttpServer {
 public:
  explicit HttpServer(HttpHandler handler, HttpLimits limits = {});
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Listens on address (IPv4, host order) and port (0: any free one) and
  // starts accepting. False with a message.
  bool start(uint32_t address, uint16_t port, std::string& error);
  uint16_t port() const { return listener_.port(); }
  // Stops accepting, ends the streams and waits for every connection.
  void stop();
  bool stopping() const { return stopping_.load(); }
  size_t connections() const;

 private:
  void acceptLoop();
  void serve(std::unique_ptr<TcpConnection> connection);
  // Reads one request; false when the connection should close (after
  // answering errorStatus, when not 0).
  bool readRequest(TcpConnection& connection, std::string& buffer, HttpRequest& request, int& errorStatus,
                   bool first);
  bool writeResponse(TcpConnection& connection, const HttpRequest& request, HttpResponse& response,
                     bool keepAlive);

  HttpHandler handler_;
  HttpLimits limits_;
  TcpListener listener_;
  std::thread acceptor_;
  std::atomic<bool> stopping_{false};
  mutable std::mutex mutex_;
  std::condition_variable idle_;
  size_t active_ = 0;
};

}  // namespace tarnlift::web
