#include "web/http_server.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "app/log.h"
#include "net/tcp_socket.h"

namespace tarnlift::web {
namespace {

using net::pollSockets;
using net::PollEntry;
using net::SocketWaker;
using net::TcpConnection;
using net::TcpListener;

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr size_t kMaxHead = kMaxRequestLine + kMaxHeaderBytes + 4;
constexpr size_t kReadChunk = 16 * 1024;
constexpr size_t kStreamPiece = 64 * 1024;  // asked of a stream at a time
constexpr int kMaxAcceptsPerTurn = 64;

HttpResponse errorResponse(int status, const std::string& text) {
  HttpResponse r;
  r.status = status;
  r.body = "{\"error\":\"" + text + "\"}";
  r.close = true;
  return r;
}

HttpResponse errorResponse(int status) { return errorResponse(status, reasonPhrase(status)); }

std::string responseBytes(const HttpResponse& response, bool keepAlive, bool head) {
  std::string bytes = responseHead(response, keepAlive);
  if (!head && !response.stream) bytes += response.body;
  return bytes;
}

// Log lines about refused and dropped connections: one in ten seconds at
// most, with the counts, so that a flood cannot fill the log.
class OverloadNote {
 public:
  void count(const std::string& what, const std::string& address) {
    ++counts_[what];
    last_ = address;
    Clock::time_point now = Clock::now();
    if (now < next_) return;
    next_ = now + std::chrono::seconds(10);
    app::LogLine line(app::LogPriority::Warning);
    line << "web:";
    const char* separator = " ";
    for (const auto& [text, n] : counts_) {
      line << separator << n << " " << text;
      separator = ", ";
    }
    line << " (the last from " << last_ << ")";
    counts_.clear();
  }

 private:
  std::map<std::string, size_t> counts_;
  std::string last_;
  Clock::time_point next_{};
};

}  // namespace

struct HttpServer::State {
  enum class Phase { Reading, Busy, Writing, Streaming };

  struct Connection {
    uint64_t id = 0;
    std::unique_ptr<TcpConnection> socket;
    Phase phase = Phase::Reading;
    bool trusted = false;  // showed valid credentials once
    std::string in;
    bool headBegun = false;
    bool headRead = false;
    HttpRequest request;
    size_t bodyLength = 0;
    bool requestAuthenticated = false;
    Clock::time_point deadline;  // of the idle time, the head or the body
    std::string out;
    size_t outSent = 0;
    Clock::time_point lastProgress;
    bool closeAfter = false;
    std::shared_ptr<ResponseStream> stream;
    int served = 0;
  };

  struct Job {
    uint64_t id = 0;
    HttpRequest request;
    bool keepAliveAllowed = false;
  };

  struct Result {
    uint64_t id = 0;
    std::string bytes;
    bool keepAlive = false;
    bool authenticated = false;
    std::shared_ptr<ResponseStream> stream;
  };

  State(HttpServer& owner, HttpHandler handle, HttpLimits given, HttpAdmit check)
      : server(owner), handler(std::move(handle)), limits(given), admit(std::move(check)) {}

  HttpServer& server;
  HttpHandler handler;
  HttpLimits limits;
  HttpAdmit admit;
  TcpListener listener;
  SocketWaker waker;
  std::thread network;
  std::vector<std::thread> workers;

  // Owned by the network thread.
  std::map<uint64_t, Connection> connections;  // by id: oldest first
  std::map<std::string, size_t> guestsByAddress;
  uint64_t nextId = 1;
  Clock::time_point nextStreamService{};
  OverloadNote overload;

  // Shared with the workers.
  std::mutex jobsLock;
  std::condition_variable jobsReady;
  std::deque<Job> urgent;    // from connections with valid credentials
  std::deque<Job> ordinary;  // from guests
  std::mutex resultsLock;
  std::vector<Result> results;

  void networkLoop();
  void turn();
  int pollTimeout(Clock::time_point now) const;
  void acceptAll();
  void admitConnection(std::unique_ptr<TcpConnection>& socket);
  void refuseWithoutMemory(TcpConnection& socket);
  bool evictGuest(const std::string* address);
  void settleGuests(const std::string& address);
  void refuse(TcpConnection& socket, const std::string& why);
  void readFrom(Connection& c);
  void advance(Connection& c);
  void writeTo(Connection& c);
  void answered(Connection& c);
  void serviceStream(Connection& c);
  void takeResults();
  void checkTimes(Clock::time_point now);
  void answerAndClose(Connection& c, int status);
  void startWrite(Connection& c, std::string bytes, bool keepAlive, std::shared_ptr<ResponseStream> stream);
  void prepareWrite(Connection& c, std::string bytes, bool keepAlive, std::shared_ptr<ResponseStream> stream);
  void close(uint64_t id);
  void trust(Connection& c);
  void guard(uint64_t id, const char* where, void (State::*step)(Connection&));

  void workerLoop();
  Result run(Job& job);
};

void HttpServer::State::trust(Connection& c) {
  if (c.trusted) return;
  c.trusted = true;
  auto it = guestsByAddress.find(c.socket->address());
  if (it != guestsByAddress.end() && --it->second == 0) guestsByAddress.erase(it);
}

void HttpServer::State::close(uint64_t id) {
  auto it = connections.find(id);
  if (it == connections.end()) return;
  if (!it->second.trusted) {
    auto guests = guestsByAddress.find(it->second.socket->address());
    if (guests != guestsByAddress.end() && --guests->second == 0) guestsByAddress.erase(guests);
  }
  connections.erase(it);
  server.connections_ = connections.size();
}

void HttpServer::State::refuse(TcpConnection& socket, const std::string& why) {
  std::string bytes = responseBytes(errorResponse(503, "the server is busy: " + why), false, false);
  socket.send(bytes.data(), bytes.size());  // as much as fits now; the client is going anyway
  overload.count("connections refused (" + why + ")", socket.address());
}

// Out of memory: a fixed answer, nothing more to allocate for it.
void HttpServer::State::refuseWithoutMemory(TcpConnection& socket) {
  static const char kBusy[] =
      "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json; charset=utf-8\r\nContent-Length: 30\r\n"
      "Connection: close\r\n\r\n{\"error\":\"the server is busy\"}";
  socket.send(kBusy, sizeof kBusy - 1);
  try {
    overload.count("connections refused (no memory left)", socket.address());
  } catch (const std::bad_alloc&) {
  }
}

// The oldest guest that is only waiting (for its next request, or in the
// middle of sending one) goes, of one address or of all; one whose request
// is being answered stays.
bool HttpServer::State::evictGuest(const std::string* address) {
  for (auto& [id, c] : connections) {
    if (c.trusted || c.phase != Phase::Reading) continue;
    if (address != nullptr && c.socket->address() != *address) continue;
    overload.count(
        address != nullptr ? "guests dropped for newer ones of the same address" : "guests dropped to make room",
        c.socket->address());
    close(id);
    return true;
  }
  return false;
}

// A guest that has sent its request already (a client that opened several
// connections at once) is read before the count is taken: with valid
// credentials it is a guest no longer.
void HttpServer::State::settleGuests(const std::string& address) {
  std::vector<uint64_t> waiting;
  for (const auto& [id, c] : connections) {
    if (!c.trusted && c.phase == Phase::Reading && c.socket->address() == address) waiting.push_back(id);
  }
  for (uint64_t id : waiting) guard(id, "reading", &State::readFrom);
}

void HttpServer::State::admitConnection(std::unique_ptr<TcpConnection>& socket) {
  const std::string address = socket->address();
  auto guests = guestsByAddress.find(address);
  if (guests != guestsByAddress.end() && guests->second >= limits.maxGuestsPerAddress) {
    settleGuests(address);
    guests = guestsByAddress.find(address);
    if (guests != guestsByAddress.end() && guests->second >= limits.maxGuestsPerAddress && !evictGuest(&address)) {
      refuse(*socket, "too many connections from one address");
      return;
    }
  }
  if (connections.size() >= limits.maxConnections && !evictGuest(nullptr)) {
    refuse(*socket, "too many connections");
    return;
  }
  uint64_t id = nextId++;
  size_t& fromAddress = guestsByAddress[address];
  Connection& c = connections[id];
  c.id = id;
  c.socket = std::move(socket);  // from here on nothing allocates
  c.deadline = Clock::now() + milliseconds(limits.guestIdleTimeoutMs);
  ++fromAddress;
  server.connections_ = connections.size();
}

void HttpServer::State::acceptAll() {
  for (int i = 0; i < kMaxAcceptsPerTurn; ++i) {
    bool busy = false;
    std::unique_ptr<TcpConnection> socket = listener.accept(0, &busy);
    if (!socket) {
      if (busy) overload.count("connections refused (no descriptors or memory left)", "?");
      return;
    }
    try {
      admitConnection(socket);
    } catch (const std::bad_alloc&) {
      if (socket) refuseWithoutMemory(*socket);
    }
  }
}

void HttpServer::State::answerAndClose(Connection& c, int status) {
  startWrite(c, responseBytes(errorResponse(status), false, false), false, nullptr);
}

void HttpServer::State::startWrite(Connection& c, std::string bytes, bool keepAlive,
                                   std::shared_ptr<ResponseStream> stream) {
  prepareWrite(c, std::move(bytes), keepAlive, std::move(stream));
  writeTo(c);
}

void HttpServer::State::prepareWrite(Connection& c, std::string bytes, bool keepAlive,
                                     std::shared_ptr<ResponseStream> stream) {
  c.out = std::move(bytes);
  c.outSent = 0;
  // A stream's connection closes when the stream ends, not after its head.
  c.closeAfter = !stream && !keepAlive;
  c.stream = std::move(stream);
  c.phase = Phase::Writing;
  c.lastProgress = Clock::now();
}

void HttpServer::State::readFrom(Connection& c) {
  char chunk[kReadChunk];
  if (c.phase == Phase::Writing && !c.stream) return;  // the next request waits its turn
  if (c.phase == Phase::Streaming || c.phase == Phase::Writing) {
    // A stream's client has nothing to say; reading tells whether it left.
    long n = c.socket->receive(chunk, sizeof chunk);
    if (n == 0 || n == -1) close(c.id);
    return;
  }
  // A few reads a turn at most, so that one fast client cannot starve the others.
  for (int i = 0; i < 4; ++i) {
    long n = c.socket->receive(chunk, sizeof chunk);
    if (n == -2) break;
    if (n <= 0) {
      close(c.id);
      return;
    }
    if (!c.headBegun) {
      c.headBegun = true;
      c.deadline = Clock::now() + milliseconds(limits.headTimeoutMs);
    }
    c.in.append(chunk, static_cast<size_t>(n));
    if (c.in.size() > kMaxHead + (c.headRead ? c.bodyLength : 0)) break;
  }
  advance(c);
}

void HttpServer::State::advance(Connection& c) {
  if (c.phase != Phase::Reading) return;
  if (!c.headRead) {
    size_t end = c.in.find("\r\n\r\n");
    if (end == std::string::npos) {
      if (c.in.size() > kMaxHead) answerAndClose(c, c.in.find("\r\n") == std::string::npos ? 414 : 431);
      return;
    }
    if (end > kMaxHead) {
      answerAndClose(c, 431);
      return;
    }
    HttpRequest request;
    if (int status = parseRequestHead(std::string_view(c.in).substr(0, end), request); status != 0) {
      answerAndClose(c, status);
      return;
    }
    size_t length = 0;
    if (!contentLength(request, length)) {
      answerAndClose(c, 400);
      return;
    }
    request.peer = c.socket->peer();
    request.address = c.socket->address();
    c.in.erase(0, end + 4);
    HttpAdmission admission;
    if (admit) {
      admission = admit(request);
    } else {
      admission.authenticated = true;
    }
    if (admission.authenticated) trust(c);
    if (admission.refusal) {
      // Refused before its body was read: the connection cannot go on.
      HttpResponse& refusal = *admission.refusal;
      startWrite(c, responseBytes(refusal, false, request.method == "HEAD"), false, nullptr);
      return;
    }
    if (length > admission.maxBody) {
      answerAndClose(c, 413);
      return;
    }
    c.request = std::move(request);
    c.bodyLength = length;
    c.requestAuthenticated = admission.authenticated;
    c.headRead = true;
    c.deadline = Clock::now() + milliseconds(limits.bodyTimeoutMs);
  }
  if (c.in.size() < c.bodyLength) return;
  Job job;
  job.id = c.id;
  job.request = std::move(c.request);
  job.request.body = c.in.substr(0, c.bodyLength);
  c.in.erase(0, c.bodyLength);
  job.keepAliveAllowed = job.request.keepAlive() && c.served + 1 < limits.maxRequestsPerConnection;
  c.headRead = false;
  c.bodyLength = 0;
  c.phase = Phase::Busy;
  bool urgentJob = c.trusted;
  {
    std::lock_guard<std::mutex> lock(jobsLock);
    (urgentJob ? urgent : ordinary).push_back(std::move(job));
  }
  jobsReady.notify_one();
}

void HttpServer::State::writeTo(Connection& c) {
  while (c.outSent < c.out.size()) {
    long n = c.socket->send(c.out.data() + c.outSent, c.out.size() - c.outSent);
    if (n == -2) return;
    if (n < 0) {
      close(c.id);
      return;
    }
    c.outSent += static_cast<size_t>(n);
    c.lastProgress = Clock::now();
  }
  c.out.clear();
  c.outSent = 0;
  answered(c);
}

// Everything written: a stream waits for more, others close or wait for
// the next request (which may already be in the buffer).
void HttpServer::State::answered(Connection& c) {
  if (c.out.capacity() > kStreamPiece * 2) std::string().swap(c.out);
  if (c.closeAfter) {
    close(c.id);
    return;
  }
  if (c.stream) {
    c.phase = Phase::Streaming;
    return;
  }
  ++c.served;
  c.phase = Phase::Reading;
  c.headBegun = !c.in.empty();
  c.deadline = Clock::now() + milliseconds(c.headBegun ? limits.headTimeoutMs
                                           : c.trusted ? limits.idleTimeoutMs
                                                       : limits.guestIdleTimeoutMs);
  if (c.in.capacity() > kMaxHead * 2 && c.in.empty()) std::string().swap(c.in);
  advance(c);
}

void HttpServer::State::serviceStream(Connection& c) {
  if (c.phase != Phase::Streaming || !c.stream) return;
  bool going = c.stream->pull(c.out, kStreamPiece);
  if (!going) c.closeAfter = true;
  if (c.out.empty()) {
    if (!going) close(c.id);
    return;
  }
  c.phase = Phase::Writing;
  c.outSent = 0;
  c.lastProgress = Clock::now();
  writeTo(c);
}

void HttpServer::State::takeResults() {
  std::vector<Result> ready;
  {
    std::lock_guard<std::mutex> lock(resultsLock);
    ready.swap(results);
  }
  for (Result& result : ready) {
    auto it = connections.find(result.id);
    if (it == connections.end()) continue;
    Connection& c = it->second;
    if (result.authenticated) trust(c);
    prepareWrite(c, std::move(result.bytes), result.keepAlive, std::move(result.stream));
    guard(result.id, "writing", &State::writeTo);
  }
}

void HttpServer::State::checkTimes(Clock::time_point now) {
  std::vector<std::pair<uint64_t, int>> expired;  // id, status to answer (0: none)
  for (auto& [id, c] : connections) {
    switch (c.phase) {
      case Phase::Reading:
        if (now >= c.deadline) expired.emplace_back(id, c.headBegun ? 408 : 0);
        break;
      case Phase::Writing:
        if (now - c.lastProgress >= milliseconds(c.stream ? limits.streamStallMs : limits.writeTimeoutMs)) {
          expired.emplace_back(id, 0);
        }
        break;
      default:
        break;
    }
  }
  for (auto [id, status] : expired) {
    auto it = connections.find(id);
    if (it == connections.end()) continue;
    if (status == 0) {
      close(id);
    } else {
      answerAndClose(it->second, status);
    }
  }
}

int HttpServer::State::pollTimeout(Clock::time_point now) const {
  Clock::time_point soonest = now + milliseconds(1000);
  bool streams = false;
  for (const auto& [id, c] : connections) {
    if (c.phase == Phase::Reading) soonest = std::min(soonest, c.deadline);
    if (c.phase == Phase::Writing) {
      soonest =
          std::min(soonest, c.lastProgress + milliseconds(c.stream ? limits.streamStallMs : limits.writeTimeoutMs));
    }
    if (c.phase == Phase::Streaming) streams = true;
  }
  if (streams) soonest = std::min(soonest, nextStreamService);
  auto left = std::chrono::duration_cast<milliseconds>(soonest - now).count();
  return left <= 0 ? 0 : static_cast<int>(left) + 1;
}

// One step of one connection, with whatever it throws kept to it: a handler
// or a stream that fails, or memory that runs out, costs that connection.
void HttpServer::State::guard(uint64_t id, const char* where, void (State::*step)(Connection&)) {
  auto it = connections.find(id);
  if (it == connections.end()) return;
  try {
    (this->*step)(it->second);
  } catch (const std::bad_alloc&) {
    auto again = connections.find(id);
    if (again != connections.end()) {
      overload.count(std::string("connections closed (no memory left while ") + where + ")",
                     again->second.socket->address());
      close(id);
    }
  } catch (const std::exception& e) {
    auto again = connections.find(id);
    if (again != connections.end()) {
      app::logLine(app::LogPriority::Warning)
          << "web: " << where << " for " << again->second.socket->peer() << " failed: " << e.what();
      close(id);
    }
  }
}

void HttpServer::State::turn() {
  Clock::time_point now = Clock::now();
  std::vector<PollEntry> entries;
  std::vector<uint64_t> ids;
  entries.reserve(connections.size() + 2);
  ids.reserve(connections.size());
  entries.push_back({listener.handle(), true, false});
  entries.push_back({waker.handle(), true, false});
  for (const auto& [id, c] : connections) {
    PollEntry e;
    e.handle = c.socket->handle();
    e.wantRead = c.phase != Phase::Busy && c.phase != Phase::Writing;
    e.wantWrite = c.phase == Phase::Writing;
    if (!e.wantRead && !e.wantWrite) continue;
    entries.push_back(e);
    ids.push_back(id);
  }
  if (pollSockets(entries, pollTimeout(now)) < 0) std::this_thread::sleep_for(milliseconds(10));
  if (server.stopping_) return;
  if (entries[1].readable) waker.drain();
  takeResults();
  for (size_t i = 0; i < ids.size(); ++i) {
    const PollEntry& e = entries[i + 2];
    if (e.writable) guard(ids[i], "writing", &State::writeTo);
    if (e.readable) guard(ids[i], "reading", &State::readFrom);
  }
  if (entries[0].readable) acceptAll();
  now = Clock::now();
  if (now >= nextStreamService) {
    nextStreamService = now + milliseconds(limits.streamIntervalMs);
    std::vector<uint64_t> streaming;
    for (const auto& [id, c] : connections) {
      if (c.phase == Phase::Streaming) streaming.push_back(id);
    }
    for (uint64_t id : streaming) guard(id, "the event stream", &State::serviceStream);
  }
  checkTimes(now);
}

void HttpServer::State::networkLoop() {
  while (!server.stopping_) {
    try {
      turn();
    } catch (const std::exception& e) {
      // Nothing a client sends may end the server; a surprise here costs a turn.
      try {
        app::logLine(app::LogPriority::Warning) << "web: " << e.what();
      } catch (const std::exception&) {
      }
      std::this_thread::sleep_for(milliseconds(10));
    }
  }
  connections.clear();
  server.connections_ = 0;
}

HttpServer::State::Result HttpServer::State::run(Job& job) {
  Result result;
  result.id = job.id;
  HttpResponse response;
  try {
    response = handler(job.request);
  } catch (const std::exception&) {
    // A handler's surprise costs this request, never the process.
    response = errorResponse(500);
  }
  result.keepAlive = job.keepAliveAllowed && !response.stream && !response.close;
  result.authenticated = response.authenticated;
  result.bytes = responseBytes(response, result.keepAlive, job.request.method == "HEAD");
  result.stream = std::move(response.stream);
  return result;
}

void HttpServer::State::workerLoop() {
  for (;;) {
    Job job;
    {
      std::unique_lock<std::mutex> lock(jobsLock);
      jobsReady.wait(lock, [this] { return server.stopping_ || !urgent.empty() || !ordinary.empty(); });
      if (server.stopping_) return;
      std::deque<Job>& queue = urgent.empty() ? ordinary : urgent;
      job = std::move(queue.front());
      queue.pop_front();
    }
    Result result;
    try {
      result = run(job);
    } catch (const std::bad_alloc&) {
      result = {};
      result.id = job.id;
      result.bytes = responseBytes(errorResponse(503, "out of memory"), false, false);
    }
    {
      std::lock_guard<std::mutex> lock(resultsLock);
      results.push_back(std::move(result));
    }
    waker.wake();
  }
}

HttpServer::HttpServer(HttpHandler handler, HttpLimits limits, HttpAdmit admit)
    : state_(std::make_unique<State>(*this, std::move(handler), limits, std::move(admit))) {}

HttpServer::~HttpServer() { stop(); }

uint16_t HttpServer::port() const { return state_->listener.port(); }

bool HttpServer::start(uint32_t address, uint16_t port, std::string& error) {
  if (!state_->waker.open(error)) return false;
  if (!state_->listener.listen(address, port, error)) return false;
  stopping_ = false;
  try {
    for (size_t i = 0; i < std::max<size_t>(state_->limits.workers, 1); ++i) {
      state_->workers.emplace_back([this] { state_->workerLoop(); });
    }
    state_->network = std::thread([this] { state_->networkLoop(); });
  } catch (const std::system_error& e) {
    error = std::string("cannot start the web console's threads: ") + e.what();
    stop();
    return false;
  }
  return true;
}

void HttpServer::stop() {
  stopping_ = true;
  state_->waker.wake();
  if (state_->network.joinable()) state_->network.join();
  state_->jobsReady.notify_all();
  for (std::thread& worker : state_->workers) {
    if (worker.joinable()) worker.join();
  }
  state_->workers.clear();
  state_->urgent.clear();
  state_->ordinary.clear();
  state_->results.clear();
  state_->listener.close();
}

}  // namespace tarnlift::web
