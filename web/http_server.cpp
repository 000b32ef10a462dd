#include "web/http_server.h"

#include <chrono>
#include <exception>

namespace tarnlift::web {
namespace {

using Clock = std::chrono::steady_clock;

int millisLeft(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left <= 0 ? 0 : static_cast<int>(left);
}

HttpResponse errorResponse(int status) {
  HttpResponse r;
  r.status = status;
  r.body = std::string("{\"error\":\"") + reasonPhrase(status) + "\"}";
  return r;
}

}  // namespace

HttpServer::HttpServer(HttpHandler handler, HttpLimits limits) : handler_(std::move(handler)), limits_(limits) {}

HttpServer::~HttpServer() { stop(); }

bool HttpServer::start(uint32_t address, uint16_t port, std::string& error) {
  if (!listener_.listen(address, port, error)) return false;
  stopping_ = false;
  acceptor_ = std::thread([this] { acceptLoop(); });
  return true;
}

void HttpServer::stop() {
  stopping_ = true;
  if (acceptor_.joinable()) acceptor_.join();
  listener_.close();
  std::unique_lock<std::mutex> lock(mutex_);
  idle_.wait(lock, [this] { return active_ == 0; });
}

size_t HttpServer::connections() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return active_;
}

void HttpServer::acceptLoop() {
  while (!stopping_) {
    std::unique_ptr<TcpConnection> connection = listener_.accept(200);
    if (!connection) continue;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (active_ >= limits_.maxConnections) {
        // Full: say so at once rather than let the client wait.
        HttpResponse busy = errorResponse(503);
        std::string data = responseHead(busy, false) + busy.body;
        connection->writeAll(data.data(), data.size(), 100);
        continue;
      }
      ++active_;
    }
    // Each connection thread ends by itself (time-outs, stop flag); stop()
    // waits for the count to reach zero.
    std::thread([this, c = std::move(connection)]() mutable { serve(std::move(c)); }).detach();
  }
}

void HttpServer::serve(std::unique_ptr<TcpConnection> connection) {
  std::string buffer;
  for (int served = 0; served < limits_.maxRequestsPerConnection && !stopping_; ++served) {
    HttpRequest request;
    int errorStatus = 0;
    if (!readRequest(*connection, buffer, request, errorStatus, served == 0)) {
      if (errorStatus != 0) {
        HttpResponse r = errorResponse(errorStatus);
        writeResponse(*connection, request, r, false);
      }
      break;
    }
    request.peer = connection->peer();
    HttpResponse response;
    try {
      response = handler_(request);
    } catch (const std::exception&) {
      // A handler's surprise costs this request, never the process.
      response = errorResponse(500);
    }
    bool keepAlive = request.keepAlive() && !response.stream;
    if (!writeResponse(*connection, request, response, keepAlive) || !keepAlive) break;
  }
  connection.reset();
  std::lock_guard<std::mutex> lock(mutex_);
  --active_;
  idle_.notify_all();
}

bool HttpServer::readRequest(TcpConnection& connection, std::string& buffer, HttpRequest& request, int& errorStatus,
                             bool first) {
  constexpr size_t kMaxHead = kMaxRequestLine + kMaxHeaderBytes + 4;
  char chunk[8192];
  // Between requests a kept-alive connection may idle; once a request has
  // begun, its head must come quickly.
  Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(first ? limits_.headTimeoutMs
                                                                              : limits_.idleTimeoutMs);
  bool begun = !buffer.empty();
  size_t headEnd;
  while ((headEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
    if (buffer.size() > kMaxHead) {
      errorStatus = buffer.find("\r\n") == std::string::npos ? 414 : 431;
      return false;
    }
    if (stopping_) return false;
    int wait = std::min(millisLeft(deadline), 250);
    if (millisLeft(deadline) == 0) {
      if (begun) errorStatus = 408;
      return false;
    }
    long n = connection.read(chunk, sizeof chunk, wait);
    if (n == -2) continue;
    if (n <= 0) return false;
    if (!begun) {
      begun = true;
      deadline = Clock::now() + std::chrono::milliseconds(limits_.headTimeoutMs);
    }
    buffer.append(chunk, static_cast<size_t>(n));
  }
  if (headEnd > kMaxHead) {
    errorStatus = 431;
    return false;
  }
  errorStatus = parseRequestHead(std::string_view(buffer).substr(0, headEnd), request);
  if (errorStatus != 0) return false;
  size_t length = 0;
  if (!contentLength(request, length)) {
    errorStatus = 400;
    return false;
  }
  if (length > kMaxBodyBytes) {
    errorStatus = 413;
    return false;
  }
  buffer.erase(0, headEnd + 4);
  Clock::time_point bodyDeadline = Clock::now() + std::chrono::milliseconds(limits_.bodyTimeoutMs);
  while (buffer.size() < length) {
    if (stopping_) return false;
    if (millisLeft(bodyDeadline) == 0) {
      errorStatus = 408;
      return false;
    }
    long n = connection.read(chunk, std::min(sizeof chunk, length - buffer.size()), std::min(millisLeft(bodyDeadline), 250));
    if (n == -2) continue;
    if (n <= 0) return false;
    buffer.append(chunk, static_cast<size_t>(n));
  }
  request.body = buffer.substr(0, length);
  buffer.erase(0, length);
  return true;
}

bool HttpServer::writeResponse(TcpConnection& connection, const HttpRequest& request, HttpResponse& response,
                               bool keepAlive) {
  std::string head = responseHead(response, keepAlive);
  if (!response.stream) {
    if (request.method != "HEAD") head += response.body;
    return connection.writeAll(head.data(), head.size(), limits_.writeTimeoutMs);
  }
  if (!connection.writeAll(head.data(), head.size(), limits_.writeTimeoutMs)) return false;
  StreamWrite write = [&](const std::string& data) {
    return !stopping_ && connection.writeAll(data.data(), data.size(), limits_.writeTimeoutMs);
  };
  StreamStopping isStopping = [this] { return stopping_.load(); };
  response.stream(write, isStopping);
  return false;
}

}  // namespace tarnlift::web
