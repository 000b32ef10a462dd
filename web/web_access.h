// Who may use the console: the token, the origins a browser may write from,
// and the host names answered when there is no token.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarnlift::web {

struct WebAccess {
  std::string token;  // empty: no token, loopback host names only
  std::string cookieName = "tarnlift_session";
  // Origins besides http:// + Host that writes with the session cookie may
  // come from (a reverse proxy's, such as https://provisioning.example),
  // each as normaliseOrigin gives it.
  std::vector<std::string> origins;
};

// Tokens shorter than this are refused at start: a guess per second must
// not find one in any time that matters.
inline constexpr size_t kMinTokenLength = 16;

// The Host header of a request to this machine itself: exactly
// "localhost", a dotted 127.x.y.z or "[::1]", each with an optional port,
// in any case. A name that only starts like one (127.0.0.1.example) is not:
// a page elsewhere can make such a name point here (DNS rebinding).
bool isLoopbackHost(std::string_view host);

// "http://HOST[:PORT]" or "https://HOST[:PORT]" with an optional trailing
// slash, as --web-origin takes it: lower case, without the slash. False with
// a message for anything else (a path, a query, another scheme).
bool normaliseOrigin(std::string_view text, std::string& origin, std::string& error);

// Whether a write that carries Origin comes from the console's own page:
// the origin is http:// + Host or one of allowed (both compared without
// regard to case).
bool originAllowed(std::string_view origin, std::string_view host, const std::vector<std::string>& allowed);

}  // namespace tarnlift::web
