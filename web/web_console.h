// The web console as a front end switches it on: the event hub, the desk
// view, the API and the HTTP server together, the log lines fed to the
// event stream, and a private folder for scripts sent as text. The owner
// keeps ticking its desk, holding desk().lock() around each tick and calling
// desk().publishChanges() after it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "web/event_hub.h"
#include "web/http_server.h"
#include "web/web_api.h"
#include "web/web_desk.h"

namespace tarnlift::web {

// "[ADDRESS:]PORT": ADDRESS a dotted IPv4 address or "localhost" (default
// 127.0.0.1), PORT 0 to 65535 (0: any free one). False with a message.
bool parseListenAddress(const std::string& text, uint32_t& address, uint16_t& port, std::string& error);
// 127.0.0.0/8 (host order).
bool isLoopbackAddress(uint32_t address);
// The token: the file's first line without a byte order mark and without
// surrounding blanks and CR. False with a message when it cannot be read,
// is empty or is shorter than kMinTokenLength.
bool readTokenFile(const std::string& path, std::string& token, std::string& error);
// Why others than the owner may read the token file ("readable by group or
// others (mode 0644)"), or empty. Windows: empty (its ACLs are the
// installer's business).
std::string tokenFileExposure(const std::string& path);

// The boot image records the boot services would serve (number, stored
// size, where found), and what they have done so far.
void fillBootImages(NetbootSnapshot& snapshot);
void fillNetbootActivity(NetbootSnapshot& snapshot);

class WebConsole {
 public:
  WebConsole(install::InstallDesk& desk, packages::PackageSets& sets, install::RememberedChoices& remembered,
             app::Registry* settings, const app::Clock& clock, WebAccess access);
  ~WebConsole();
  WebConsole(const WebConsole&) = delete;
  WebConsole& operator=(const WebConsole&) = delete;

  bool start(uint32_t address, uint16_t port, std::string& error);
  void stop();
  uint16_t port() const { return server_ ? server_->port() : 0; }
  WebDesk& desk() { return desk_; }
  EventHub& hub() { return hub_; }

 private:
  static void onLogLine(const std::string& line, void* context);

  EventHub hub_;
  WebDesk desk_;
  WebApi api_;
  std::unique_ptr<HttpServer> server_;
  std::string scriptFolder_;
  bool listening_ = false;
};

}  // namespace tarnlift::web
