// The request head parser's limits and readings.
#include "web/http_message.h"

#include <gtest/gtest.h>

namespace tarnlift::web {
namespace {

TEST(HttpMessage, ParsesRequestLineHeadersAndQuery) {
  HttpRequest r;
  ASSERT_EQ(parseRequestHead("GET /api/v1/routers/4C%3A5E?x=1 HTTP/1.1\r\nHost: 127.0.0.1:8080\r\nX-A:  b \r\n", r), 0);
  EXPECT_EQ(r.method, "GET");
  EXPECT_EQ(r.path, "/api/v1/routers/4C:5E");
  EXPECT_EQ(r.query, "x=1");
  EXPECT_EQ(r.header("host"), "127.0.0.1:8080");
  EXPECT_EQ(r.header("x-a"), "b");
  EXPECT_TRUE(r.keepAlive());
}

TEST(HttpMessage, RefusesWhatIsMalformed) {
  HttpRequest r;
  EXPECT_EQ(parseRequestHead("GET\r\nHost: a\r\n", r), 400);
  EXPECT_EQ(parseRequestHead("GET nopath HTTP/1.1\r\nHost: a\r\n", r), 400);
  EXPECT_EQ(parseRequestHead("GET / HTTP/2.0\r\nHost: a\r\n", r), 505);
  EXPECT_EQ(parseRequestHead("GET / HTTP/1.1\r\n", r), 400) << "HTTP/1.1 needs Host";
  EXPECT_EQ(parseRequestHead("GET / HTTP/1.1\r\nHost: a\r\n folded\r\n", r), 400);
  EXPECT_EQ(parseRequestHead("GET / HTTP/1.1\r\nHost: a\r\nBad Name: x\r\n", r), 400);
  EXPECT_EQ(parseRequestHead("GET /%zz HTTP/1.1\r\nHost: a\r\n", r), 400);
  EXPECT_EQ(parseRequestHead("GET /%00 HTTP/1.1\r\nHost: a\r\n", r), 400);
  EXPECT_EQ(parseRequestHead("GET /% HTTP/1.1\r\nHost: a\r\n", r), 400);
  EXPECT_EQ(parseRequestHead("POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n", r), 501);
}

TEST(HttpMessage, LimitsTheRequestLineAndTheHeaders) {
  HttpRequest r;
  std::string longLine = "GET /" + std::string(kMaxRequestLine, 'a') + " HTTP/1.1\r\nHost: a\r\n";
  EXPECT_EQ(parseRequestHead(longLine, r), 414);
  std::string many = "GET / HTTP/1.1\r\nHost: a\r\n";
  for (size_t i = 0; i < kMaxHeaderCount; ++i) many += "X-" + std::to_string(i) + ": v\r\n";
  EXPECT_EQ(parseRequestHead(many, r), 431);
  std::string big = "GET / HTTP/1.1\r\nHost: a\r\nX: " + std::string(kMaxHeaderBytes, 'v') + "\r\n";
  EXPECT_EQ(parseRequestHead(big, r), 431);
}

TEST(HttpMessage, ContentLengthMustBeOneDecimalNumber) {
  HttpRequest r;
  size_t n = 1;
  ASSERT_EQ(parseRequestHead("PUT / HTTP/1.1\r\nHost: a\r\nContent-Length: 12\r\n", r), 0);
  EXPECT_TRUE(contentLength(r, n));
  EXPECT_EQ(n, 12u);
  ASSERT_EQ(parseRequestHead("PUT / HTTP/1.1\r\nHost: a\r\nContent-Length: -1\r\n", r), 0);
  EXPECT_FALSE(contentLength(r, n));
  ASSERT_EQ(parseRequestHead("PUT / HTTP/1.1\r\nHost: a\r\nContent-Length: 1\r\nContent-Length: 2\r\n", r), 0);
  EXPECT_FALSE(contentLength(r, n));
  ASSERT_EQ(parseRequestHead("GET / HTTP/1.1\r\nHost: a\r\n", r), 0);
  EXPECT_TRUE(contentLength(r, n));
  EXPECT_EQ(n, 0u);
}

TEST(HttpMessage, CookiesAndConnection) {
  HttpRequest r;
  ASSERT_EQ(parseRequestHead("GET / HTTP/1.0\r\nCookie: a=1; tarnlift_session=abc ; b=2\r\n", r), 0);
  EXPECT_EQ(r.cookie("tarnlift_session"), "abc");
  EXPECT_EQ(r.cookie("c"), "");
  EXPECT_FALSE(r.keepAlive()) << "HTTP/1.0 closes unless asked";
}

TEST(HttpMessage, ResponseHeadCarriesLengthOrClosesAStream) {
  HttpResponse r;
  r.status = 404;
  r.body = "{}";
  std::string head = responseHead(r, true);
  EXPECT_EQ(head.rfind("HTTP/1.1 404 Not Found\r\n", 0), 0u);
  EXPECT_NE(head.find("Content-Length: 2\r\n"), std::string::npos);
  EXPECT_NE(head.find("Connection: keep-alive"), std::string::npos);
  struct Endless : ResponseStream {
    bool pull(std::string&, size_t) override { return true; }
  };
  r.stream = std::make_shared<Endless>();
  head = responseHead(r, true);
  EXPECT_EQ(head.find("Content-Length"), std::string::npos);
  EXPECT_NE(head.find("Connection: close"), std::string::npos);
}

}  // namespace
}  // namespace tarnlift::web
