#include "web/http_message.h"

#include <algorithm>
#include <cctype>

namespace tarnlift::web {
namespace {

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

bool isTokenChar(char c) {
  unsigned char u = static_cast<unsigned char>(c);
  if (std::isalnum(u)) return true;
  return std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string lowerCase(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

std::string HttpRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (key == name) return value;
  }
  return {};
}

bool HttpRequest::hasHeader(std::string_view name) const {
  return std::any_of(headers.begin(), headers.end(), [&](const auto& h) { return h.first == name; });
}

std::string HttpRequest::cookie(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (key != "cookie") continue;
    std::string_view rest = value;
    while (!rest.empty()) {
      size_t semi = rest.find(';');
      std::string_view pair = trim(rest.substr(0, semi));
      rest = semi == std::string_view::npos ? std::string_view() : rest.substr(semi + 1);
      size_t eq = pair.find('=');
      if (eq != std::string_view::npos && pair.substr(0, eq) == name) return std::string(pair.substr(eq + 1));
    }
  }
  return {};
}

bool HttpRequest::keepAlive() const {
  std::string connection = lowerCase(header("connection"));
  if (version == "HTTP/1.0") return connection == "keep-alive";
  return connection != "close";
}

const char* reasonPhrase(int status) {
  switch (status) {
    case 200: return "OK";
    case 202: return "Accepted";
    case 204: return "No Content";
    case 400: return "Bad Request";
    case 401: return "Unauthorized";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 408: return "Request Timeout";
    case 409: return "Conflict";
    case 411: return "Length Required";
    case 413: return "Content Too Large";
    case 414: return "URI Too Long";
    case 415: return "Unsupported Media Type";
    case 429:
      return "Too Many Requests";
    case 431: return "Request Header Fields Too Large";
    case 500: return "Internal Server Error";
    case 501: return "Not Implemented";
    case 503: return "Service Unavailable";
    case 505: return "HTTP Version Not Supported";
    default: return "Unknown";
  }
}

bool percentDecode(std::string_view text, std::string& out) {
  out.clear();
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c != '%') {
      out.push_back(c);
      continue;
    }
    if (i + 2 >= text.size()) return false;
    int high = hexValue(text[i + 1]);
    int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0) return false;
    char decoded = static_cast<char>(high * 16 + low);
    if (decoded == '\0') return false;
    out.push_back(decoded);
    i += 2;
  }
  return true;
}

int parseRequestHead(std::string_view head, HttpRequest& request) {
  size_t lineEnd = head.find("\r\n");
  std::string_view line = head.substr(0, lineEnd);
  if (line.size() > kMaxRequestLine) return 414;
  std::string_view rest = lineEnd == std::string_view::npos ? std::string_view() : head.substr(lineEnd + 2);
  if (rest.size() > kMaxHeaderBytes) return 431;

  size_t sp1 = line.find(' ');
  if (sp1 == std::string_view::npos || sp1 == 0) return 400;
  size_t sp2 = line.find(' ', sp1 + 1);
  if (sp2 == std::string_view::npos || sp2 == sp1 + 1) return 400;
  std::string_view method = line.substr(0, sp1);
  std::string_view target = line.substr(sp1 + 1, sp2 - sp1 - 1);
  std::string_view version = line.substr(sp2 + 1);
  if (!std::all_of(method.begin(), method.end(), isTokenChar)) return 400;
  if (version.size() != 8 || version.substr(0, 7) != "HTTP/1.") return version.substr(0, 5) == "HTTP/" ? 505 : 400;
  if (version[7] != '0' && version[7] != '1') return 505;
  if (target.empty() || target.front() != '/') return 400;
  for (char c : target) {
    unsigned char u = static_cast<unsigned char>(c);
    if (u <= 0x20 || u == 0x7F) return 400;
  }
  request.method = std::string(method);
  request.target = std::string(target);
  request.version = std::string(version);
  size_t question = target.find('?');
  if (question != std::string_view::npos) request.query = std::string(target.substr(question + 1));
  if (!percentDecode(target.substr(0, question), request.path)) return 400;

  request.headers.clear();
  while (!rest.empty()) {
    size_t end = rest.find("\r\n");
    std::string_view headerLine = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 2);
    if (headerLine.empty()) break;
    if (headerLine.front() == ' ' || headerLine.front() == '\t') return 400;  // no folded lines
    size_t colon = headerLine.find(':');
    if (colon == std::string_view::npos || colon == 0) return 400;
    std::string_view name = headerLine.substr(0, colon);
    if (!std::all_of(name.begin(), name.end(), isTokenChar)) return 400;
    std::string_view value = trim(headerLine.substr(colon + 1));
    for (char c : value) {
      unsigned char u = static_cast<unsigned char>(c);
      if ((u < 0x20 && c != '\t') || u == 0x7F) return 400;
    }
    if (request.headers.size() >= kMaxHeaderCount) return 431;
    request.headers.emplace_back(lowerCase(name), std::string(value));
  }
  if (request.hasHeader("transfer-encoding")) return 501;
  if (request.version == "HTTP/1.1" && !request.hasHeader("host")) return 400;
  return 0;
}

bool contentLength(const HttpRequest& request, size_t& length) {
  length = 0;
  bool seen = false;
  for (const auto& [key, value] : request.headers) {
    if (key != "content-length") continue;
    if (value.empty() || value.size() > 12) return false;
    size_t n = 0;
    for (char c : value) {
      if (c < '0' || c > '9') return false;
      n = n * 10 + static_cast<size_t>(c - '0');
    }
    if (seen && n != length) return false;
    length = n;
    seen = true;
  }
  return true;
}

std::string responseHead(const HttpResponse& response, bool keepAlive) {
  std::string head = "HTTP/1.1 " + std::to_string(response.status) + " " + reasonPhrase(response.status) + "\r\n";
  if (!response.contentType.empty()) head += "Content-Type: " + response.contentType + "\r\n";
  for (const auto& [key, value] : response.headers) head += key + ": " + value + "\r\n";
  head += "X-Content-Type-Options: nosniff\r\n";
  if (response.stream) {
    head += "Cache-Control: no-store\r\nConnection: close\r\n\r\n";
  } else {
    head += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
    head += keepAlive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n";
  }
  return head;
}

}  // namespace tarnlift::web
