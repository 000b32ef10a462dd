// The web console's HTTP/1.1 server, built for a segment where any device
// may be hostile. One network thread polls every connection (poll/WSAPoll):
// it accepts, reads request heads and bodies, writes answers and feeds the
// event streams, never waiting on any one client, so a thousand idle or
// trickling connections cost a buffer each and no thread. Whole requests
// go to a few worker threads, made once at start, that run the handler;
// requests with valid credentials go first. A connection that has shown no
// credentials yet is a guest: it may idle 5 s, its body is small, one
// address may hold only a few guests at once, and when the server is full
// the oldest idle guest makes room. A refused request (no or wrong token,
// another origin, too many tries) closes its connection.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "web/http_message.h"

namespace tarnlift::web {

// What the server learns from a request head before it reads the body.
struct HttpAdmission {
  std::optional<HttpResponse> refusal;  // answered at once; the body is not read
  bool authenticated = false;           // right credentials: the connection is an operator's
  size_t maxBody = kMaxBodyBytes;       // a longer body is 413
};

// Called on the network thread for every request head: must be quick and
// must not wait for anything but short locks.
using HttpAdmit = std::function<HttpAdmission(const HttpRequest& head)>;
// Called on a worker thread for every admitted request.
using HttpHandler = std::function<HttpResponse(const HttpRequest& request)>;

struct HttpLimits {
  size_t maxConnections = 512;     // all together; the fd limit is 1024 by default
  size_t maxGuestsPerAddress = 8;  // guests from one client address
  size_t workers = 4;
  int headTimeoutMs = 5000;       // the whole request head, from its first byte
  int bodyTimeoutMs = 10000;      // the whole body
  int idleTimeoutMs = 15000;      // an operator's connection between requests
  int guestIdleTimeoutMs = 5000;  // a guest's, before and between requests
  int writeTimeoutMs = 5000;      // an answer the client takes nothing of
  int streamStallMs = 30000;      // an event stream the client takes nothing of
  int streamIntervalMs = 100;     // how often streams are asked for more
  int maxRequestsPerConnection = 1000;
};

class HttpServer {
 public:
  // admit null: every request is admitted as authenticated.
  explicit HttpServer(HttpHandler handler, HttpLimits limits = {}, HttpAdmit admit = nullptr);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Listens on address (IPv4, host order) and port (0: any free one) and
  // starts the network thread and the workers. False with a message.
  bool start(uint32_t address, uint16_t port, std::string& error);
  uint16_t port() const;
  // Stops accepting, closes every connection (streams included) and waits
  // for the threads.
  void stop();
  bool stopping() const { return stopping_.load(); }
  // Open connections (for tests).
  size_t connections() const { return connections_.load(); }

  struct State;

 private:
  std::unique_ptr<State> state_;
  std::atomic<bool> stopping_{false};
  std::atomic<size_t> connections_{0};
};

}  // namespace tarnlift::web
