// The HTTP server on an ephemeral loopback port: requests over real
// connections, keep-alive, the limits, slow clients, the event stream, and
// a clean stop while a stream is open.
#include "web/http_server.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/web/web_fixture.h"

namespace tarnlift::web {
namespace {

constexpr uint32_t kLoopback = 0x7F000001;

class HttpServerTest : public testing::WebFixture {
 protected:
  std::unique_ptr<HttpServer> server;

  void startServer(HttpLimits limits = {}) {
    server = std::make_unique<HttpServer>([this](const HttpRequest& r) { return api->handle(r); }, limits);
    std::string error;
    ASSERT_TRUE(server->start(kLoopback, 0, error)) << error;
    ASSERT_NE(server->port(), 0);
  }
  void TearDown() override {
    if (server) server->stop();
  }

  std::unique_ptr<TcpConnection> connect() { return connectTcp(kLoopback, server->port(), 2000); }

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

  static bool send(TcpConnection& c, const std::string& text) { return c.writeAll(text.data(), text.size(), 2000); }
};

TEST_F(HttpServerTest, AnswersOverAConnectionAndKeepsItAlive) {
  announce(1);
  startServer();
  auto c = connect();
  ASSERT_TRUE(c);
  ASSERT_TRUE(send(*c, "GET /api/v1/routers HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"));
  std::string first = readSome(*c, "]");
  EXPECT_EQ(first.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << first;
  EXPECT_NE(first.find("4C:5E:0C:01:02:01"), std::string::npos);
  ASSERT_TRUE(send(*c, "GET /api/v1/nothing HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n"));
  std::string second = readSome(*c, "");
  EXPECT_EQ(second.rfind("HTTP/1.1 404 Not Found\r\n", 0), 0u) << second;
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
  ASSERT_TRUE(send(*quick, "GET /api/v1/routers HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n"));
  EXPECT_EQ(readSome(*quick, "").rfind("HTTP/1.1 200 ", 0), 0u);
  std::string answer = readSome(*slow, "}", 3000);
  EXPECT_EQ(answer.rfind("HTTP/1.1 408 ", 0), 0u) << answer;
}

TEST_F(HttpServerTest, BeyondTheConnectionLimitAClientGets503AtOnce) {
  HttpLimits limits;
  limits.maxConnections = 2;
  startServer(limits);
  auto a = connect();
  auto b = connect();
  // Both are being served once each has sent something.
  send(*a, "G");
  send(*b, "G");
  for (int i = 0; i < 100 && server->connections() < 2; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_EQ(server->connections(), 2u);
  auto third = connect();
  ASSERT_TRUE(third);
  EXPECT_EQ(readSome(*third, "}").rfind("HTTP/1.1 503 ", 0), 0u);
}

TEST_F(HttpServerTest, TheEventStreamCarriesTheTableThenEachChangeInOrder) {
  announce(1);
  api->setKeepAliveMillis(200);
  startServer();
  auto c = connect();
  ASSERT_TRUE(c);
  ASSERT_TRUE(send(*c, "GET /api/v1/events HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"));
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
  std::string idle = readSome(*c, ": keep-alive", 2000);
  EXPECT_NE(idle.find(": keep-alive\n\n"), std::string::npos);
  // Stopping ends the stream promptly.
  auto before = std::chrono::steady_clock::now();
  server->stop();
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(3));
}

}  // namespace
}  // namespace tarnlift::web
