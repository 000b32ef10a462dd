#include "web/web_access.h"

#include <algorithm>
#include <cctype>

#include "web/http_message.h"

namespace tarnlift::web {
namespace {

bool allDigits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// ":PORT" or nothing.
bool validPort(std::string_view text) {
  if (text.empty()) return true;
  if (text.front() != ':' || text.size() > 6 || !allDigits(text.substr(1))) return false;
  return std::stoul(std::string(text.substr(1))) <= 65535;
}

bool isLoopbackDotted(std::string_view name) {
  int parts = 0;
  while (true) {
    size_t dot = name.find('.');
    std::string_view part = name.substr(0, dot);
    if (part.size() > 3 || !allDigits(part) || std::stoul(std::string(part)) > 255) return false;
    if (parts == 0 && part != "127") return false;
    ++parts;
    if (dot == std::string_view::npos) break;
    name.remove_prefix(dot + 1);
  }
  return parts == 4;
}

// The host name and the port part (":PORT" or "") of a Host header or an
// origin's authority; false when it has no shape of one.
bool splitAuthority(std::string_view authority, std::string_view& name, std::string_view& port) {
  if (!authority.empty() && authority.front() == '[') {
    size_t close = authority.find(']');
    if (close == std::string_view::npos) return false;
    name = authority.substr(0, close + 1);
    port = authority.substr(close + 1);
  } else {
    size_t colon = authority.find(':');
    name = authority.substr(0, colon);
    port = colon == std::string_view::npos ? std::string_view() : authority.substr(colon);
  }
  return !name.empty() && validPort(port);
}

}  // namespace

bool isLoopbackHost(std::string_view host) {
  std::string text = lowerCase(host);
  std::string_view name, port;
  if (!splitAuthority(text, name, port)) return false;
  return name == "localhost" || name == "[::1]" || isLoopbackDotted(name);
}

bool normaliseOrigin(std::string_view text, std::string& origin, std::string& error) {
  std::string t = lowerCase(text);
  if (!t.empty() && t.back() == '/') t.pop_back();
  error = "--web-origin needs http://HOST[:PORT] or https://HOST[:PORT], such as https://provisioning.example";
  size_t scheme = t.find("://");
  if (scheme == std::string::npos || (t.substr(0, scheme) != "http" && t.substr(0, scheme) != "https")) return false;
  std::string_view authority = std::string_view(t).substr(scheme + 3);
  if (authority.find_first_of("/?#@ \\") != std::string_view::npos) return false;
  std::string_view name, port;
  if (!splitAuthority(authority, name, port)) return false;
  if (!std::all_of(name.begin(), name.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '.' || c == '-' || c == '[' || c == ']' || c == ':';
      })) {
    return false;
  }
  origin = t;
  error.clear();
  return true;
}

bool originAllowed(std::string_view origin, std::string_view host, const std::vector<std::string>& allowed) {
  std::string given = lowerCase(origin);
  if (given == "http://" + lowerCase(host)) return true;
  return std::find(allowed.begin(), allowed.end(), given) != allowed.end();
}

}  // namespace tarnlift::web
