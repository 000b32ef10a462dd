#include "web/web_api.h"

#include <algorithm>

#include "app/log.h"

namespace tarnlift::web {
namespace {

using nlohmann::json;

HttpResponse jsonResponse(int status, const json& body) {
  HttpResponse r;
  r.status = status;
  r.body = jsonText(body);
  r.headers.emplace_back("Cache-Control", "no-store");
  return r;
}

HttpResponse fromResult(const WebResult& result) { return jsonResponse(result.status, result.body); }

// Compares without stopping at the first difference, so the time taken does
// not tell how much of a guessed token was right.
bool sameSecret(const std::string& a, const std::string& b) {
  unsigned char diff = a.size() == b.size() ? 0 : 1;
  for (size_t i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i % (b.empty() ? 1 : b.size())]);
  return diff == 0 && !b.empty();
}

HttpResponse methodNotAllowed(const char* allow) {
  HttpResponse r = jsonError(405, std::string("allowed: ") + allow);
  r.headers.emplace_back("Allow", allow);
  return r;
}

// A refusal of the head: the connection closes after it.
HttpAdmission refused(HttpResponse response) {
  response.close = true;
  HttpAdmission admission;
  admission.refusal = std::move(response);
  return admission;
}

bool isWrite(const std::string& method) { return method != "GET" && method != "HEAD"; }

const std::string& addressOf(const HttpRequest& request) {
  static const std::string unknown = "?";
  return request.address.empty() ? unknown : request.address;
}

}  // namespace

HttpResponse jsonError(int status, const std::string& text) { return jsonResponse(status, json{{"error", text}}); }

bool nestingWithin(const std::string& body, int limit) {
  int depth = 0;
  bool inString = false;
  for (size_t i = 0; i < body.size(); ++i) {
    char c = body[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > limit) return false;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return true;
}

bool pathSegments(const std::string& target, std::vector<std::string>& segments) {
  segments.clear();
  std::string_view path = std::string_view(target).substr(0, target.find('?'));
  if (path.empty() || path.front() != '/') return false;
  path.remove_prefix(1);
  if (!path.empty() && path.back() == '/') path.remove_suffix(1);  // "/api/v1/routers/" is the list
  if (path.empty()) return true;
  while (true) {
    size_t slash = path.find('/');
    std::string decoded;
    if (!percentDecode(path.substr(0, slash), decoded) || decoded.empty() || decoded == "." || decoded == "..") {
      return false;
    }
    segments.push_back(std::move(decoded));
    if (slash == std::string_view::npos) return true;
    path.remove_prefix(slash + 1);
  }
}

WebApi::WebApi(WebDesk& desk, EventHub& hub, WebAccess access, const app::Clock& clock)
    : desk_(desk), hub_(hub), access_(std::move(access)), clock_(clock), sessions_(clock), backoff_(clock) {}

WebApi::Caller WebApi::identify(const HttpRequest& request) {
  Caller caller;
  if (access_.token.empty()) {
    caller.kind = Caller::Kind::Local;
    return caller;
  }
  std::string authorization = request.header("authorization");
  if (authorization.rfind("Bearer ", 0) == 0) {
    if (sameSecret(authorization.substr(7), access_.token)) caller.kind = Caller::Kind::Bearer;
    return caller;
  }
  std::string cookie = request.cookie(access_.cookieName);
  if (!cookie.empty() && sessions_.use(cookie)) {
    caller.kind = Caller::Kind::Cookie;
    caller.session = cookie;
  }
  return caller;
}

HttpResponse WebApi::tooManyTries(const HttpRequest& request, uint32_t seconds) {
  HttpResponse r = jsonError(
      429, "too many wrong tokens from " + addressOf(request) + ": the next try in " + std::to_string(seconds) + " s");
  r.headers.emplace_back("Retry-After", std::to_string(seconds));
  r.close = true;
  return r;
}

HttpResponse WebApi::wrongToken(const HttpRequest& request, const char* where) {
  const std::string& address = addressOf(request);
  uint32_t failures = backoff_.failed(address);
  app::logLine(app::LogPriority::Warning)
      << "web: wrong token from " << address << " (" << where << ", " << failures << " in a row; its next try in "
      << GuessBackoff::delayAfter(failures) << " s)";
  HttpResponse r = jsonError(401, "wrong token");
  r.headers.emplace_back("WWW-Authenticate", "Bearer");
  r.close = true;
  return r;
}

HttpAdmission WebApi::admit(const HttpRequest& head) {
  std::vector<std::string> parts;
  // No path of ours has "..", "." or empty segments: such a request names
  // nothing.
  if (!pathSegments(head.target, parts)) return refused(jsonError(404, "no such path"));
  // Without a token only the machine itself may call: a page elsewhere
  // must not reach the API through a host name that points here.
  if (access_.token.empty() && !isLoopbackHost(head.header("host"))) {
    return refused(jsonError(403, "the host name '" + head.header("host") +
                                      "' is not this machine's: without --web-token the console answers only to "
                                      "localhost, 127.x.y.z or [::1]"));
  }
  bool writes = isWrite(head.method);
  if (writes && head.hasHeader("origin") &&
      !originAllowed(head.header("origin"), head.header("host"), access_.origins)) {
    return refused(jsonError(403, "writes from the origin '" + head.header("origin") +
                                      "' are refused (a reverse proxy's origin needs --web-origin)"));
  }
  // The body is not read yet (handle() has it already).
  size_t length = 0;
  if (!contentLength(head, length) || length == 0) length = head.body.size();
  if (writes && length > 0 && head.header("content-type").rfind("application/json", 0) != 0) {
    return refused(jsonError(415, "the body must be application/json"));
  }
  bool open = head.path == "/api/v1/session" || isConsoleAsset(head.path);
  if (head.path == "/api/v1/session" && head.method == "POST" && !access_.token.empty()) {
    if (uint32_t wait = backoff_.waitSeconds(addressOf(head)); wait > 0) return refused(tooManyTries(head, wait));
  }
  bool bearer = head.header("authorization").rfind("Bearer ", 0) == 0 && !access_.token.empty();
  if (bearer) {
    if (uint32_t wait = backoff_.waitSeconds(addressOf(head)); wait > 0) return refused(tooManyTries(head, wait));
  }
  Caller caller = identify(head);
  if (bearer && !caller.authorised()) return refused(wrongToken(head, "Bearer"));
  if (bearer) backoff_.succeeded(addressOf(head));
  if (!caller.authorised() && !open) {
    HttpResponse r = jsonError(401, "a token is needed: Authorization: Bearer TOKEN, or log in on the console");
    r.headers.emplace_back("WWW-Authenticate", "Bearer");
    return refused(std::move(r));
  }
  // A cross-site request may carry the cookie; it cannot carry a header of
  // our own without the browser asking first (which this server never
  // allows), so a cookie write without Origin must bring one.
  if (writes && caller.kind == Caller::Kind::Cookie && !head.hasHeader("origin") && head.header("x-tarnlift") != "1") {
    return refused(jsonError(403, "a write with the session cookie needs Origin or X-Tarnlift: 1"));
  }
  HttpAdmission admission;
  admission.authenticated = caller.authorised();
  admission.maxBody = caller.authorised() ? kMaxBodyBytes : kGuestBodyBytes;
  return admission;
}

HttpResponse WebApi::handle(const HttpRequest& request) {
  HttpAdmission admission = admit(request);
  if (admission.refusal) return std::move(*admission.refusal);
  if (request.body.size() > admission.maxBody) return jsonError(413, "the body is too large");
  HttpResponse response = respond(request);
  response.authenticated = response.authenticated || admission.authenticated;
  return response;
}

HttpResponse WebApi::respond(const HttpRequest& request) {
  std::string contentType, body;
  if (consoleAsset(request.path, contentType, body)) {
    if (isWrite(request.method)) return methodNotAllowed("GET, HEAD");
    HttpResponse r;
    r.contentType = contentType;
    r.body = std::move(body);
    r.headers.emplace_back("Content-Security-Policy",
                           "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
                           "connect-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'none'");
    r.headers.emplace_back("Referrer-Policy", "no-referrer");
    return r;
  }
  if (request.path == "/api/v1/session") return session(request);
  std::vector<std::string> parts;
  if (!pathSegments(request.target, parts)) return jsonError(404, "no such path");
  Caller caller = identify(request);
  if (!caller.authorised()) return jsonError(401, "a token is needed");
  return route(request, parts, caller);
}

HttpResponse WebApi::session(const HttpRequest& request) {
  if (request.method == "GET") {
    return jsonResponse(200,
                        {{"tokenRequired", !access_.token.empty()}, {"authorised", identify(request).authorised()}});
  }
  if (request.method == "DELETE") {
    // The session's event streams see it gone and end.
    sessions_.remove(request.cookie(access_.cookieName));
    HttpResponse r = jsonResponse(200, {{"authorised", false}});
    r.headers.emplace_back("Set-Cookie", access_.cookieName + "=; Path=/; HttpOnly; SameSite=Strict; Max-Age=0");
    return r;
  }
  if (request.method != "POST") return methodNotAllowed("GET, POST, DELETE");
  if (!nestingWithin(request.body, 8)) return jsonError(400, "bad JSON");
  json body = json::parse(request.body, nullptr, false);
  if (body.is_discarded() || !body.is_object() || !body.contains("token") || !body["token"].is_string()) {
    return jsonError(400, "token: expected {\"token\": \"...\"}");
  }
  if (access_.token.empty()) return jsonResponse(200, {{"authorised", true}});
  if (uint32_t wait = backoff_.waitSeconds(addressOf(request)); wait > 0) return tooManyTries(request, wait);
  if (!sameSecret(body["token"].get<std::string>(), access_.token)) return wrongToken(request, "login");
  backoff_.succeeded(addressOf(request));
  std::string id = sessions_.create();
  HttpResponse r = jsonResponse(200, {{"authorised", true}});
  r.headers.emplace_back("Set-Cookie", access_.cookieName + "=" + id + "; Path=/; HttpOnly; SameSite=Strict");
  r.authenticated = true;
  return r;
}

HttpResponse WebApi::route(const HttpRequest& request, const std::vector<std::string>& parts, const Caller& caller) {
  const std::string& m = request.method;
  if (parts.size() == 1 && parts[0] == "metrics") {
    if (m != "GET" && m != "HEAD") return methodNotAllowed("GET, HEAD");
    HttpResponse r;
    r.contentType = "text/plain; version=0.0.4; charset=utf-8";
    std::lock_guard<std::mutex> lock(desk_.lock());
    r.body = desk_.metrics();
    return r;
  }
  if (parts.size() < 3 || parts[0] != "api" || parts[1] != "v1") return jsonError(404, "no such path");
  json body;
  if (m == "PUT" || (m == "POST" && !request.body.empty())) {
    if (!nestingWithin(request.body, 16)) return jsonError(400, "bad JSON: nested too deeply");
    body = json::parse(request.body, nullptr, false);
    if (body.is_discarded()) return jsonError(400, "bad JSON");
  }
  const std::string& what = parts[2];
  if (what == "events" && parts.size() == 3) {
    if (m != "GET") return methodNotAllowed("GET");
    return events(caller);
  }
  if (what == "netboot" && parts.size() == 3) {
    if (m != "GET" && m != "HEAD") return methodNotAllowed("GET, HEAD");
    std::lock_guard<std::mutex> lock(desk_.lock());
    return jsonResponse(200, desk_.netboot());
  }
  if (what == "sets") {
    if (parts.size() == 3) {
      if (m != "GET" && m != "HEAD") return methodNotAllowed("GET, HEAD");
      std::lock_guard<std::mutex> lock(desk_.lock());
      return jsonResponse(200, desk_.sets());
    }
    if (parts.size() != 4) return jsonError(404, "no such path");
    std::lock_guard<std::mutex> lock(desk_.lock());
    if (m == "PUT") return fromResult(desk_.putSet(parts[3], body));
    if (m == "DELETE") return fromResult(desk_.deleteSet(parts[3]));
    return methodNotAllowed("PUT, DELETE");
  }
  if (what == "routers") {
    std::lock_guard<std::mutex> lock(desk_.lock());
    if (parts.size() == 3) {
      if (m != "GET" && m != "HEAD") return methodNotAllowed("GET, HEAD");
      return jsonResponse(200, desk_.routers());
    }
    const std::string& mac = parts[3];
    if (parts.size() == 4) {
      if (m != "GET" && m != "HEAD") return methodNotAllowed("GET, HEAD");
      return fromResult(desk_.router(mac));
    }
    if (parts.size() != 5) return jsonError(404, "no such path");
    const std::string& action = parts[4];
    if (action == "packages") {
      if (m != "GET" && m != "HEAD") return methodNotAllowed("GET, HEAD");
      return fromResult(desk_.packages(mac));
    }
    if (action == "selection") {
      if (m != "PUT") return methodNotAllowed("PUT");
      return fromResult(desk_.putSelection(mac, body));
    }
    if (action == "options") {
      if (m != "PUT") return methodNotAllowed("PUT");
      return fromResult(desk_.putOptions(mac, body));
    }
    if (action == "install" || action == "reboot" || action == "shutdown" || action == "cancel") {
      if (m != "POST") return methodNotAllowed("POST");
      return fromResult(desk_.command(mac, action));
    }
  }
  return jsonError(404, "no such path");
}

HttpResponse WebApi::events(const Caller& caller) {
  std::function<bool()> allowed;
  std::string session;
  if (caller.kind == Caller::Kind::Cookie) {
    // Logout, expiry or a newer login that pushed the session out ends the stream.
    session = caller.session;
    allowed = [this, session] { return sessions_.alive(session); };
  }
  auto stream = std::make_shared<EventStream>(hub_, clock_, std::move(allowed), streamOptions_);
  {
    std::lock_guard<std::mutex> lock(streamsLock_);
    size_t open = 0;
    for (auto it = streams_.begin(); it != streams_.end();) {
      auto& list = it->second;
      list.erase(std::remove_if(list.begin(), list.end(),
                                [](const std::weak_ptr<EventStream>& s) {
                                  auto live = s.lock();
                                  return !live || live->ended();
                                }),
                 list.end());
      open += list.size();
      it = list.empty() ? streams_.erase(it) : std::next(it);
    }
    // Scripts with the token and the machine itself (no token) share the
    // whole; a console session has two (a reloaded page opens its new
    // stream before the old one is seen gone: the oldest gives way).
    auto& mine = streams_[session];
    while (!session.empty() && mine.size() >= kStreamsPerSession) {
      if (auto oldest = mine.front().lock()) oldest->end();
      mine.pop_front();
      --open;
    }
    if (open >= kMaxStreams) {
      if (mine.empty()) streams_.erase(session);
      return jsonError(503, "too many event streams are open");
    }
    mine.push_back(stream);
  }
  HttpResponse r;
  r.contentType = "text/event-stream; charset=utf-8";
  r.headers.emplace_back("X-Accel-Buffering", "no");
  r.stream = std::move(stream);
  return r;
}

}  // namespace tarnlift::web
