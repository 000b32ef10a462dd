// The web console's request handling: the paths under /api/v1, /metrics and
// the console's own files; who may call them (token or session cookie,
// same-origin writes, loopback host names when there is no token); errors
// as JSON. It does no I/O itself, so tests and the fuzzer call handle()
// directly; the HTTP server calls it from its connection threads.
#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>

#include "web/event_hub.h"
#include "web/http_message.h"
#include "web/web_desk.h"

namespace tarnlift::web {

struct WebAccess {
  std::string token;  // empty: no token, loopback only
  std::string cookieName = "tarnlift_session";
};

class WebApi {
 public:
  WebApi(WebDesk& desk, EventHub& hub, WebAccess access);

  HttpResponse handle(const HttpRequest& request);

  // How long an idle event stream waits before its keep-alive comment.
  void setKeepAliveMillis(int millis) { keepAliveMillis_ = millis; }

 private:
  bool authorised(const HttpRequest& request);
  HttpResponse route(const HttpRequest& request);
  HttpResponse session(const HttpRequest& request);
  HttpResponse events();

  WebDesk& desk_;
  EventHub& hub_;
  WebAccess access_;
  int keepAliveMillis_ = 15000;
  std::mutex sessionsLock_;
  std::set<std::string> sessions_;
};

// The JSON error answer {"error": text}.
HttpResponse jsonError(int status, const std::string& text);

// Whether a body nests arrays and objects no deeper than limit (the JSON
// parser recurses once per level).
bool nestingWithin(const std::string& body, int limit);

// The console's files, compiled in: "/", "/console.js", "/console.css".
bool consoleAsset(const std::string& path, std::string& contentType, std::string& body);

}  // namespace tarnlift::web
