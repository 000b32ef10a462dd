#include "web/web_api.h"

#include <chrono>
#include <random>
#include <thread>

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

std::string randomHex(size_t bytes) {
  std::random_device device;
  std::string out;
  static const char* kHex = "0123456789abcdef";
  for (size_t i = 0; i < bytes; ++i) {
    unsigned v = device() & 0xFF;
    out += kHex[v >> 4];
    out += kHex[v & 15];
  }
  return out;
}

std::vector<std::string> splitPath(const std::string& path) {
  std::vector<std::string> parts;
  size_t start = 1;
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    if (slash == std::string::npos) slash = path.size();
    parts.push_back(path.substr(start, slash - start));
    start = slash + 1;
  }
  if (!parts.empty() && parts.back().empty()) parts.pop_back();
  return parts;
}

bool isLoopbackHost(const std::string& host) {
  std::string name = host;
  if (!name.empty() && name.front() == '[') {
    size_t close = name.find(']');
    name = close == std::string::npos ? name : name.substr(1, close - 1);
    return name == "::1";
  }
  size_t colon = name.find(':');
  if (colon != std::string::npos) name = name.substr(0, colon);
  return name == "localhost" || name.rfind("127.", 0) == 0;
}

HttpResponse methodNotAllowed(const char* allow) {
  HttpResponse r = jsonError(405, std::string("allowed: ") + allow);
  r.headers.emplace_back("Allow", allow);
  return r;
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

WebApi::WebApi(WebDesk& desk, EventHub& hub, WebAccess access) : desk_(desk), hub_(hub), access_(std::move(access)) {}

bool WebApi::authorised(const HttpRequest& request) {
  if (access_.token.empty()) return true;
  std::string authorization = request.header("authorization");
  if (authorization.rfind("Bearer ", 0) == 0 && sameSecret(authorization.substr(7), access_.token)) return true;
  std::string cookie = request.cookie(access_.cookieName);
  if (cookie.empty()) return false;
  std::lock_guard<std::mutex> lock(sessionsLock_);
  return sessions_.count(cookie) != 0;
}

HttpResponse WebApi::handle(const HttpRequest& request) {
  const std::string& path = request.path;
  // No path of ours has "..", "." or empty segments, backslashes or NULs:
  // such a request names nothing.
  if (path.find("..") != std::string::npos || path.find("//") != std::string::npos ||
      path.find('\\') != std::string::npos || path.find("/./") != std::string::npos) {
    return jsonError(404, "no such path");
  }
  // Without a token only the machine itself may call: a page elsewhere
  // must not reach the API through a host name that points here.
  if (access_.token.empty() && !isLoopbackHost(request.header("host"))) {
    return jsonError(403, "without --web-token the console answers only to localhost or 127.0.0.1");
  }
  bool writes = request.method != "GET" && request.method != "HEAD";
  if (writes && request.hasHeader("origin")) {
    std::string origin = request.header("origin");
    if (origin != "http://" + request.header("host")) return jsonError(403, "writes from another origin are refused");
  }
  if (writes && !request.body.empty()) {
    std::string type = request.header("content-type");
    if (type.rfind("application/json", 0) != 0) return jsonError(415, "the body must be application/json");
  }
  std::string contentType, body;
  if (consoleAsset(path, contentType, body)) {
    if (writes) return methodNotAllowed("GET, HEAD");
    HttpResponse r;
    r.contentType = contentType;
    r.body = std::move(body);
    r.headers.emplace_back("Content-Security-Policy",
                           "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
                           "connect-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'none'");
    r.headers.emplace_back("Referrer-Policy", "no-referrer");
    return r;
  }
  if (path == "/api/v1/session") return session(request);
  if (!authorised(request)) {
    HttpResponse r = jsonError(401, "a token is needed: Authorization: Bearer TOKEN, or log in on the console");
    r.headers.emplace_back("WWW-Authenticate", "Bearer");
    return r;
  }
  return route(request);
}

HttpResponse WebApi::session(const HttpRequest& request) {
  if (request.method == "GET") {
    return jsonResponse(200, {{"tokenRequired", !access_.token.empty()}, {"authorised", authorised(request)}});
  }
  if (request.method == "DELETE") {
    std::lock_guard<std::mutex> lock(sessionsLock_);
    sessions_.erase(request.cookie(access_.cookieName));
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
  if (!sameSecret(body["token"].get<std::string>(), access_.token)) return jsonError(401, "wrong token");
  std::string id = randomHex(32);
  {
    std::lock_guard<std::mutex> lock(sessionsLock_);
    // A bounded number of sessions: the oldest are simply forgotten.
    if (sessions_.size() >= 256) sessions_.erase(sessions_.begin());
    sessions_.insert(id);
  }
  HttpResponse r = jsonResponse(200, {{"authorised", true}});
  r.headers.emplace_back("Set-Cookie", access_.cookieName + "=" + id + "; Path=/; HttpOnly; SameSite=Strict");
  return r;
}

HttpResponse WebApi::route(const HttpRequest& request) {
  const std::string& m = request.method;
  const std::string& path = request.path;
  if (path == "/metrics") {
    if (m != "GET" && m != "HEAD") return methodNotAllowed("GET, HEAD");
    HttpResponse r;
    r.contentType = "text/plain; version=0.0.4; charset=utf-8";
    std::lock_guard<std::mutex> lock(desk_.lock());
    r.body = desk_.metrics();
    return r;
  }
  std::vector<std::string> parts = splitPath(path);
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
    return events();
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

HttpResponse WebApi::events() {
  HttpResponse r;
  r.contentType = "text/event-stream; charset=utf-8";
  r.headers.emplace_back("X-Accel-Buffering", "no");
  int keepAlive = keepAliveMillis_;
  r.stream = [this, keepAlive](const StreamWrite& write, const StreamStopping& stopping) {
    uint64_t next = hub_.nextId();
    std::vector<std::string> snapshot;
    {
      std::lock_guard<std::mutex> lock(desk_.lock());
      snapshot = desk_.routerSnapshots();
    }
    std::string first = "retry: 2000\n\n";
    for (const std::string& data : snapshot) first += EventHub::format({0, "router", data});
    if (!write(first)) return;
    auto lastWrite = std::chrono::steady_clock::now();
    std::vector<WebEvent> events;
    while (!stopping()) {
      if (!hub_.waitFrom(next, events, std::chrono::milliseconds(std::min(keepAlive, 1000)))) {
        // Too far behind to catch up: the client reconnects and starts over.
        write("event: resync\ndata: {}\n\n");
        return;
      }
      std::string text;
      for (const WebEvent& e : events) {
        text += EventHub::format(e);
        next = e.id + 1;
      }
      auto now = std::chrono::steady_clock::now();
      if (text.empty() && now - lastWrite >= std::chrono::milliseconds(keepAlive)) text = ": keep-alive\n\n";
      if (text.empty()) continue;
      if (!write(text)) return;
      lastWrite = now;
      // Gather what comes next for a tenth of a second: a busy desk then
      // costs each client ten wake-ups a second, not one per event.
      if (!events.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  };
  return r;
}

}  // namespace tarnlift::web
