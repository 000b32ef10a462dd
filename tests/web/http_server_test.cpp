// The HTTP server on an ephemeral loopback port: requests over real
// connections, keep-alive, the limits, slow clients, guests and operators,
// the event stream, failures kept to their connection, and a clean stop
// while a stream is open.
#include "web/http_server.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#if !defined(_WIN32)
#include <sys/resource.h>
#include <unistd.h>
#endif

#include "tests/app/capture_log.h"
#include "tests/web/web_fixture.h"
#include "net/tcp_socket.h"

namespace tarnlift::web {
namespace {

using net::connectTcp;
using net::TcpConnection;

constexpr uint32_t kLoopback = 0x7F000001;
const std::string kToken = "0123456789abcdef-token";

class HttpServerTest : public testing::WebFixture {
 protected:
  std::unique_ptr<HttpServer> server;

  // With the API's own admission (token, guests), as serve runs it.
  void startServer(HttpLimits limits = {}) {
    server = std::make_unique<HttpServer>([this](const HttpRequest& r) { return api->respond(r); }, limits,
                                          [this](const HttpRequest& r) { return api->admit(r); });
    std::string error;
    ASSERT_TRUE(server->start(kLoopback, 0, error)) << error;
    ASSERT_NE(server->port(), 0);
  }
  void startWith(HttpHandler handler, HttpLimits limits = {}) {
    server = std::make_unique<HttpServer>(std::move(handler), limits);
    std::string error;
    ASSERT_TRUE(server->start(kLoopback, 0, error)) << error;
  }
  void TearDown() override {
    if (server) server->stop();
  }

  std::unique_ptr<TcpConnection> connect(uint32_t from = 0) {
    return connectTcp(kLoopback, server->port(), 2000, from);
  }

  // Reads until the connection closes or text contains until (or time runs out).
  static std::string readSome(TcpConnection& c, const std::string& until, int millis = 3000) {
    std::string text;
    char buffer[4096];
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(millis);
    while (std::chrono::steady_clock::now() < deadline) {
      if (!until.empty() && text.find(until) != std::string::npos) break;
      long n = c.read(buffer, sizeof buffer, 50);
      if (n == -2) continue;
      if (n <= 0) break;
      text.append(buffer, static_cast<size_t>(n));
    }
    return text;
  }
  // Whether the server closed c within millis (without a word).
  static bool closedByServer(TcpConnection& c, int millis = 3000) {
    char buffer[256];
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(millis);
    while (std::chrono::steady_clock::now() < deadline) {
      long n = c.read(buffer, sizeof buffer, 50);
      if (n == 0 || n == -1) return true;
      if (n > 0) return false;
    }
    return false;
  }

  static bool send(TcpConnection& c, const std::string& text) { return c.writeAll(text.data(), text.size(), 2000); }
  static std::string get(const std::string& path, const std::string& extra = "") {
    return "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + extra + "\r\n";
  }
  static std::string bearer() { return "Authorization: Bearer " + kToken + "\r\n"; }
};

TEST_F(HttpServerTest, AnswersOverAConnectionAndKeepsItAlive) {
  announce(1);
  startServer();
  auto c = connect();
  ASSERT_TRUE(c);
  ASSERT_TRUE(send(*c, get("/api/v1/routers")));
  std::string first = readSome(*c, "]");
  EXPECT_EQ(first.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << first;
  EXPECT_NE(first.find("4C:5E:0C:01:02:01"), std::string::npos);
  ASSERT_TRUE(send(*c, get("/api/v1/routers/4C:5E:0C:01:02:09", "Connection: close\r\n")));
  std::string second = readSome(*c, "");
  EXPECT_EQ(second.rfind("HTTP/1.1 404 Not Found\r\n", 0), 0u) << second;
}

TEST_F(HttpServerTest, PipelinedRequestsAreAnsweredInOrder) {
  startServer();
  auto c = connect();
  ASSERT_TRUE(send(*c, get("/api/v1/sets") + get("/api/v1/nothing", "Connection: close\r\n")));
  std::string both = readSome(*c, "");
  size_t second = both.find("HTTP/1.1 404");
  EXPECT_EQ(both.rfind("HTTP/1.1 200 OK", 0), 0u) << both;
  EXPECT_NE(second, std::string::npos) << both;
}

TEST_F(HttpServerTest, ABodyOverOneMebibyteIsRefusedUnread) {
  announce(1);
  startServer();
  auto c = connect();
  ASSERT_TRUE(c);
  ASSERT_TRUE(send(*c, "PUT " + path(1, "/options") +
                           " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\nContent-Length: 2000000\r\n\r\n"));
  std::string answer = readSome(*c, "}");
  EXPECT_EQ(answer.rfind("HTTP/1.1 413 ", 0), 0u) << answer;
}

TEST_F(HttpServerTest, AStrangerMaySendOnlyASmallBody) {
  useToken(kToken);
  startServer();
  auto c = connect();
  ASSERT_TRUE(send(*c,
                   "POST /api/v1/session HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n"
                   "Content-Length: 100000\r\n\r\n"));
  EXPECT_EQ(readSome(*c, "}").rfind("HTTP/1.1 413 ", 0), 0u);
}

TEST_F(HttpServerTest, HugeHeadsAndGarbageGetTheirErrors) {
  startServer();
  auto c = connect();
  ASSERT_TRUE(c);
  send(*c, "GET / HTTP/1.1\r\nHost: a\r\nX: " + std::string(40000, 'x'));
  EXPECT_EQ(readSome(*c, "}").rfind("HTTP/1.1 431 ", 0), 0u);
  c = connect();
  send(*c, "\x16\x03\x01 garbage\r\n\r\n");
  EXPECT_EQ(readSome(*c, "}").rfind("HTTP/1.1 400 ", 0), 0u);
}

TEST_F(HttpServerTest, ASlowClientIsCutOffAndOthersAreServedMeanwhile) {
  HttpLimits limits;
  limits.headTimeoutMs = 300;
  startServer(limits);
  auto slow = connect();
  ASSERT_TRUE(slow);
  ASSERT_TRUE(send(*slow, "GET /api/v1/rou"));
  auto quick = connect();
  ASSERT_TRUE(send(*quick, get("/api/v1/routers", "Connection: close\r\n")));
  EXPECT_EQ(readSome(*quick, "").rfind("HTTP/1.1 200 ", 0), 0u);
  std::string answer = readSome(*slow, "}", 3000);
  EXPECT_EQ(answer.rfind("HTTP/1.1 408 ", 0), 0u) << answer;
}

TEST_F(HttpServerTest, AGuestIdlesBrieflyAnOperatorLonger) {
  useToken(kToken);
  HttpLimits limits;
  limits.guestIdleTimeoutMs = 200;
  limits.idleTimeoutMs = 5000;
  startServer(limits);
  auto guest = connect();
  auto operatorConnection = connect();
  ASSERT_TRUE(send(*operatorConnection, get("/api/v1/routers", bearer())));
  EXPECT_EQ(readSome(*operatorConnection, "]").rfind("HTTP/1.1 200 ", 0), 0u);
  EXPECT_TRUE(closedByServer(*guest, 2000)) << "a silent guest goes after its short idle time";
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  ASSERT_TRUE(send(*operatorConnection, get("/api/v1/routers", bearer())));
  EXPECT_EQ(readSome(*operatorConnection, "]").rfind("HTTP/1.1 200 ", 0), 0u) << "the operator's connection stays";
}

TEST_F(HttpServerTest, ARefusedRequestClosesItsConnection) {
  useToken(kToken);
  startServer();
  auto c = connect();
  ASSERT_TRUE(send(*c, get("/api/v1/routers")));
  std::string answer = readSome(*c, "");
  EXPECT_EQ(answer.rfind("HTTP/1.1 401 ", 0), 0u) << answer;
  EXPECT_NE(answer.find("Connection: close"), std::string::npos);
  EXPECT_TRUE(closedByServer(*c, 1000)) << "one request per connection after a 401";
}

TEST_F(HttpServerTest, OneAddressHoldsOnlyAFewGuestsTheOldestMakesRoom) {
  HttpLimits limits;
  limits.maxGuestsPerAddress = 2;
  startServer(limits);
  uint32_t crowd = 0x7F000002, other = 0x7F000003;
  auto a = connect(crowd);
  auto b = connect(crowd);
  ASSERT_TRUE(a && b);
  for (int i = 0; i < 100 && server->connections() < 2; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  auto c = connect(crowd);
  ASSERT_TRUE(c);
  EXPECT_TRUE(closedByServer(*a)) << "the oldest guest of the crowded address went";
  auto d = connect(other);
  ASSERT_TRUE(send(*d, get("/api/v1/sets", "Connection: close\r\n")));
  EXPECT_EQ(readSome(*d, "").rfind("HTTP/1.1 200 ", 0), 0u) << "another address is not limited by it";
  ASSERT_TRUE(send(*c, get("/api/v1/sets", "Connection: close\r\n")));
  EXPECT_EQ(readSome(*c, "").rfind("HTTP/1.1 200 ", 0), 0u);
  EXPECT_FALSE(closedByServer(*b, 200));
}

TEST_F(HttpServerTest, WhenFullAGuestMakesRoomButAnOperatorDoesNot) {
  useToken(kToken);
  HttpLimits limits;
  limits.maxConnections = 2;
  startServer(limits);
  auto operatorConnection = connect();
  ASSERT_TRUE(send(*operatorConnection, get("/api/v1/sets", bearer())));
  ASSERT_EQ(readSome(*operatorConnection, "]").rfind("HTTP/1.1 200 ", 0), 0u);
  auto guest = connect(0x7F000004);
  for (int i = 0; i < 100 && server->connections() < 2; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_EQ(server->connections(), 2u);
  auto newcomer = connect(0x7F000005);
  ASSERT_TRUE(send(*newcomer, get("/api/v1/sets", bearer() + "Connection: close\r\n")));
  EXPECT_EQ(readSome(*newcomer, "").rfind("HTTP/1.1 200 ", 0), 0u);
  EXPECT_TRUE(closedByServer(*guest));
  ASSERT_TRUE(send(*operatorConnection, get("/api/v1/sets", bearer())));
  EXPECT_EQ(readSome(*operatorConnection, "]").rfind("HTTP/1.1 200 ", 0), 0u);
  // Two operators hold every place: a third client is told so at once.
  auto second = connect(0x7F000006);
  ASSERT_TRUE(send(*second, get("/api/v1/sets", bearer())));
  ASSERT_EQ(readSome(*second, "]").rfind("HTTP/1.1 200 ", 0), 0u);
  auto third = connect(0x7F000007);
  EXPECT_EQ(readSome(*third, "}").rfind("HTTP/1.1 503 ", 0), 0u);
}

TEST_F(HttpServerTest, AnOperatorIsAnsweredAtOnceAmongManyIdleAndSlowGuests) {
  useToken(kToken);
  startServer();
  std::vector<std::unique_ptr<TcpConnection>> crowd;
  for (uint32_t i = 0; i < 200; ++i) {
    auto c = connect(0x7F010000 + i / 4 + 1);
    ASSERT_TRUE(c);
    if (i % 2 == 0) send(*c, "GET /api/v1/rou");  // a slow head
    crowd.push_back(std::move(c));
  }
  for (int i = 0; i < 200 && server->connections() < 200; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(server->connections(), 200u) << "one poll thread holds them all, no thread each";
  auto before = std::chrono::steady_clock::now();
  auto c = connect();
  ASSERT_TRUE(send(*c, get("/api/v1/routers", bearer() + "Connection: close\r\n")));
  EXPECT_EQ(readSome(*c, "").rfind("HTTP/1.1 200 ", 0), 0u);
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(500));
}

TEST_F(HttpServerTest, AHandlerOrAStreamThatThrowsCostsItsConnectionOnly) {
  struct Failing : ResponseStream {
    bool pull(std::string&, size_t) override { throw std::runtime_error("broken stream"); }
  };
  startWith([](const HttpRequest& r) -> HttpResponse {
    if (r.path == "/throw") throw std::runtime_error("broken handler");
    HttpResponse response;
    if (r.path == "/stream") response.stream = std::make_shared<Failing>();
    response.body = "{}";
    return response;
  });
  auto a = connect();
  ASSERT_TRUE(send(*a, get("/throw")));
  EXPECT_EQ(readSome(*a, "}").rfind("HTTP/1.1 500 ", 0), 0u);
  auto b = connect();
  ASSERT_TRUE(send(*b, get("/stream")));
  std::string head = readSome(*b, "");
  EXPECT_EQ(head.rfind("HTTP/1.1 200 ", 0), 0u) << head;
  auto c = connect();
  ASSERT_TRUE(send(*c, get("/fine", "Connection: close\r\n")));
  EXPECT_EQ(readSome(*c, "").rfind("HTTP/1.1 200 ", 0), 0u);
}

TEST_F(HttpServerTest, OutOfDescriptorsANewcomerIsToldSoAndTheServerGoesOn) {
#if defined(_WIN32)
  GTEST_SKIP() << "Windows has no descriptor limit of this kind";
#else
  tarnlift::testing::CapturedLog log;
  startServer();
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  // The lowest free descriptor is the client's; the server has none left.
  int lowest = dup(0);
  ASSERT_GE(lowest, 0);
  close(lowest);
  rlimit tight = old;
  tight.rlim_cur = static_cast<rlim_t>(lowest) + 1;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  auto starved = connect();
  std::string answer = starved ? readSome(*starved, "}") : "";
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
  EXPECT_EQ(answer.rfind("HTTP/1.1 503 ", 0), 0u) << answer;
  auto later = connect();
  ASSERT_TRUE(send(*later, get("/api/v1/sets", "Connection: close\r\n")));
  EXPECT_EQ(readSome(*later, "").rfind("HTTP/1.1 200 ", 0), 0u) << "the server goes on";
  server->stop();
  EXPECT_TRUE(log.contains("connections refused (no descriptors or memory left)")) << log.text();
#endif
}

TEST_F(HttpServerTest, TheEventStreamCarriesTheTableThenEachChangeInOrder) {
  announce(1);
  api->setKeepAliveMillis(200);
  startServer();
  auto c = connect();
  ASSERT_TRUE(c);
  ASSERT_TRUE(send(*c, get("/api/v1/events")));
  std::string head = readSome(*c, "\"Ready\"");
  EXPECT_NE(head.find("Content-Type: text/event-stream"), std::string::npos) << head;
  EXPECT_NE(head.find("event: router\ndata: {"), std::string::npos);
  {
    std::lock_guard<std::mutex> lock(webDesk.lock());
    clock.advanceMillis(300);
    announce(2, "R2");
  }
  std::string more = readSome(*c, "\"R2\"");
  EXPECT_NE(more.find("\"R2\""), std::string::npos) << more;
  // Idle: a comment keeps the stream open.
  clock.advanceMillis(300);
  std::string idle = readSome(*c, ": keep-alive", 2000);
  EXPECT_NE(idle.find(": keep-alive\n\n"), std::string::npos);
  // Stopping ends the stream promptly.
  auto before = std::chrono::steady_clock::now();
  server->stop();
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(3));
}

TEST_F(HttpServerTest, LogoutClosesTheSessionsStreams) {
  useToken(kToken);
  startServer();
  HttpResponse login = call("POST", "/api/v1/session", "{\"token\": \"" + kToken + "\"}");
  std::string pair;
  for (auto& [k, v] : login.headers) {
    if (k == "Set-Cookie") pair = v.substr(0, v.find(';'));
  }
  ASSERT_FALSE(pair.empty());
  auto stream = connect();
  ASSERT_TRUE(send(*stream, get("/api/v1/events", "Cookie: " + pair + "\r\n")));
  EXPECT_NE(readSome(*stream, "retry: 2000").find("retry: 2000"), std::string::npos);
  auto logout = connect();
  ASSERT_TRUE(send(*logout, "DELETE /api/v1/session HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Tarnlift: 1\r\nCookie: " + pair +
                                "\r\nConnection: close\r\n\r\n"));
  EXPECT_EQ(readSome(*logout, "").rfind("HTTP/1.1 200 ", 0), 0u);
  EXPECT_TRUE(closedByServer(*stream, 2000));
}

}  // namespace
}  // namespace tarnlift::web
