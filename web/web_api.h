// The web console's request handling: the paths under /api/v1, /metrics and
// the console's own files; who may call them (token or session cookie,
// same-origin writes, loopback host names when there is no token, a
// growing wait for addresses that guess tokens); errors as JSON. It does no
// I/O itself, so tests and the fuzzer call handle() directly. The HTTP
// server calls admit() with each request head on its network thread (so a
// stranger is refused before its body is read) and respond() with the
// whole request on a worker.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app/clock.h"
#include "web/event_hub.h"
#include "web/guess_backoff.h"
#include "web/http_message.h"
#include "web/http_server.h"
#include "web/session_store.h"
#include "web/web_access.h"
#include "web/web_desk.h"

namespace tarnlift::web {

// The body a request without credentials may send (a login's token).
inline constexpr size_t kGuestBodyBytes = 4 * 1024;
// Event streams: per console session, and in all.
inline constexpr size_t kStreamsPerSession = 2;
inline constexpr size_t kMaxStreams = 64;

class WebApi {
 public:
  WebApi(WebDesk& desk, EventHub& hub, WebAccess access, const app::Clock& clock);

  // A whole request: admit() and respond() in one.
  HttpResponse handle(const HttpRequest& request);
  // The head's checks: path, host, origin, credentials and the wait after
  // wrong tokens. Quick; touches no desk.
  HttpAdmission admit(const HttpRequest& head);
  // The answer to a request admit() let through.
  HttpResponse respond(const HttpRequest& request);

  // How long an idle event stream waits before its keep-alive comment.
  void setKeepAliveMillis(int millis) { streamOptions_.keepAliveMillis = millis; }
  // How far a stream client may fall behind before it is resynchronised.
  void setStreamBudget(size_t bytes) { streamOptions_.budgetBytes = bytes; }

  SessionStore& sessions() { return sessions_; }

 private:
  // Who a request comes from, as far as its credentials tell.
  struct Caller {
    enum class Kind { Nobody, Local, Bearer, Cookie } kind = Kind::Nobody;
    std::string session;
    bool authorised() const { return kind != Kind::Nobody; }
  };
  Caller identify(const HttpRequest& request);
  HttpResponse tooManyTries(const HttpRequest& request, uint32_t seconds);
  HttpResponse wrongToken(const HttpRequest& request, const char* where);
  HttpResponse route(const HttpRequest& request, const std::vector<std::string>& parts, const Caller& caller);
  HttpResponse session(const HttpRequest& request);
  HttpResponse events(const Caller& caller);

  WebDesk& desk_;
  EventHub& hub_;
  WebAccess access_;
  const app::Clock& clock_;
  SessionStore sessions_;
  GuessBackoff backoff_;
  EventStream::Options streamOptions_;
  std::mutex streamsLock_;
  // By session id ("": Bearer and token-less clients).
  std::map<std::string, std::deque<std::weak_ptr<EventStream>>> streams_;
};

// The JSON error answer {"error": text}.
HttpResponse jsonError(int status, const std::string& text);

// Whether a body nests arrays and objects no deeper than limit (the JSON
// parser recurses once per level).
bool nestingWithin(const std::string& body, int limit);

// The segments of a request target's path, each percent-decoded on its own
// (so that a set name may hold "/"). False for a bad escape, and for an
// empty, "." or ".." segment: no path of ours has one.
bool pathSegments(const std::string& target, std::vector<std::string>& segments);

// The console's files, compiled in: "/", "/console.js", "/console.css".
bool consoleAsset(const std::string& path, std::string& contentType, std::string& body);
// Whether path is one of them (without copying it).
bool isConsoleAsset(const std::string& path);

}  // namespace tarnlift::web
