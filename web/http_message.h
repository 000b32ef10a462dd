// HTTP/1.1 requests and responses as the web console's server sees them:
// the request head parsed with hard limits (so a hostile client costs a
// bounded amount of memory), and responses that are either a whole body or
// a stream written piece by piece (the event stream).
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarnlift::web {

inline constexpr size_t kMaxRequestLine = 8 * 1024;
inline constexpr size_t kMaxHeaderBytes = 16 * 1024;  // all header lines together
inline constexpr size_t kMaxHeaderCount = 64;
inline constexpr size_t kMaxBodyBytes = 1024 * 1024;

struct HttpRequest {
  std::string method;
  std::string target;  // as sent, with the query
  std::string path;    // percent-decoded, without the query
  std::string query;
  std::string version;  // "HTTP/1.1"
  std::vector<std::pair<std::string, std::string>> headers;  // names lower case
  std::string body;
  std::string peer;     // the client's address and port, for the log
  std::string address;  // the client's address alone: what limits and back-off count by

  // The first header of that (lower-case) name, or empty.
  std::string header(std::string_view name) const;
  bool hasHeader(std::string_view name) const;
  // The value of a cookie in the Cookie header, or empty.
  std::string cookie(std::string_view name) const;
  bool keepAlive() const;
};

// The body of a response that never ends by itself (the event stream). The
// server asks it for more whenever the client has taken what it had, from
// the server's one network thread: pull must be quick and must not wait.
class ResponseStream {
 public:
  virtual ~ResponseStream() = default;
  // Appends what is due now (about room bytes at most; nothing is fine).
  // False when the stream has ended: what it appended is still sent, then
  // the connection closes.
  virtual bool pull(std::string& out, size_t room) = 0;
};

struct HttpResponse {
  int status = 200;
  std::string contentType = "application/json; charset=utf-8";
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
  // Set: the body comes from this stream, and the connection closes after it.
  std::shared_ptr<ResponseStream> stream;
  // The request carried valid credentials: its connection is an operator's
  // from now on (longer idle time, not counted against its address).
  bool authenticated = false;
  // Answer, then close the connection (refusals of strangers: one request
  // per connection after them).
  bool close = false;
};

// ASCII letters in lower case (header names, host names).
std::string lowerCase(std::string_view text);

// The reason phrase of a status code ("OK", "Not Found", ...).
const char* reasonPhrase(int status);

// Parses the request head (request line and headers, up to and without the
// empty line). Returns 0 on success, otherwise the status to answer with:
// 400 malformed, 414 request line too long, 431 headers too large, 501 a
// transfer coding other than none, 505 not HTTP/1.x.
int parseRequestHead(std::string_view head, HttpRequest& request);

// The Content-Length of a parsed request: 0 when absent; false when it is
// not a plain decimal number or several disagree.
bool contentLength(const HttpRequest& request, size_t& length);

// Decodes %XX escapes; false for a bad escape or an encoded NUL.
bool percentDecode(std::string_view text, std::string& out);

// The status line and headers of a whole response (with Content-Length), or
// of a streamed one (no length, the connection closes after it).
std::string responseHead(const HttpResponse& response, bool keepAlive);

}  // namespace tarnlift::web
