#include "web/web_console.h"

#include <filesystem>
#include <fstream>
#include <random>

#include "app/log.h"
#include "app/utc_time.h"
#include "install/install_command.h"
#include "net/address.h"
#include "netboot/boot_images.h"
#include "netboot/netboot_activity.h"

namespace tarnlift::web {


bool isLoopbackAddress(uint32_t address) { return (address >> 24) == 127; }

bool parseListenAddress(const std::string& text, uint32_t& address, uint16_t& port, std::string& error) {
  std::string host = "127.0.0.1";
  std::string portText = text;
  size_t colon = text.rfind(':');
  if (colon != std::string::npos) {
    host = text.substr(0, colon);
    portText = text.substr(colon + 1);
  }
  error = "--web needs [ADDRESS:]PORT, such as 8080 or 0.0.0.0:8080";
  if (portText.empty() || portText.size() > 5) return false;
  uint32_t value = 0;
  for (char c : portText) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<uint32_t>(c - '0');
  }
  if (value > 65535) return false;
  if (host == "localhost") host = "127.0.0.1";
  // Strictly four decimal parts: inet_addr's readings of "1" or "0x7f.1"
  // are not addresses anyone means here.
  uint32_t parsed = 0;
  if (!net::parseDottedQuad(host, parsed)) return false;
  address = net::hostOrder(parsed);
  port = static_cast<uint16_t>(value);
  error.clear();
  return true;
}

bool readTokenFile(const std::string& path, std::string& token, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = "cannot read the token file " + path;
    return false;
  }
  std::string line;
  std::getline(in, line);
  // Editors on Windows start a file with a byte order mark and end lines
  // with CR; neither is part of the token.
  if (line.rfind("\xEF\xBB\xBF", 0) == 0) line.erase(0, 3);
  size_t first = line.find_first_not_of(" \t\r");
  size_t last = line.find_last_not_of(" \t\r");
  token = first == std::string::npos ? "" : line.substr(first, last - first + 1);
  if (token.empty()) {
    error = "the token file " + path + " holds no token on its first line";
    return false;
  }
  if (token.size() < kMinTokenLength) {
    error = "the token in " + path + " has " + std::to_string(token.size()) + " characters; a token needs at least " +
            std::to_string(kMinTokenLength) + " (make one with: openssl rand -hex 16 > " + path + ")";
    token.clear();
    return false;
  }
  return true;
}

void fillBootImages(NetbootSnapshot& snapshot) {
  snapshot.images.clear();
  for (const netboot::BootImageUse& use : netboot::bootImageUses()) {
    netboot::BootImageLocation location;
    if (!netboot::locateBootImage(use.number, location)) continue;
    snapshot.images.push_back({use.number, location.storedSize, location.place});
  }
}

void fillNetbootActivity(NetbootSnapshot& snapshot) {
  netboot::NetbootActivity activity = netboot::netbootActivity();
  snapshot.bootpReplies = activity.bootpReplies;
  snapshot.tftpTransfers = activity.tftpTransfers;
  snapshot.tftpBytesSent = activity.tftpBytesSent;
  snapshot.clients.clear();
  for (const netboot::AnsweredClient& c : activity.lastClients) {
    snapshot.clients.push_back({c.mac, c.clientClass, app::utcText(c.when)});
  }
}

WebConsole::WebConsole(install::InstallDesk& desk, packages::PackageSets& sets, install::RememberedChoices& remembered,
                       app::Registry* settings, const app::Clock& clock, WebAccess access)
    : desk_(desk, sets, remembered, settings, hub_, clock), api_(desk_, hub_, std::move(access), clock) {}

WebConsole::~WebConsole() { stop(); }

void WebConsole::onLogLine(const std::string& line, void* context) {
  static_cast<EventHub*>(context)->publish("log", jsonText(nlohmann::json{{"line", line}}));
}

bool WebConsole::start(uint32_t address, uint16_t port, std::string& error) {
  // Scripts sent as text live in a folder of this process only.
  std::error_code ec;
  std::random_device random;
  std::filesystem::path folder = std::filesystem::temp_directory_path(ec) /
                                 ("tarnlift-web-" + std::to_string(random()) + std::to_string(random()));
  if (!ec && std::filesystem::create_directory(folder, ec) && !ec) {
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all, std::filesystem::perm_options::replace, ec);
    scriptFolder_ = folder.string();
    desk_.setScriptFolder(scriptFolder_);
  }
  server_ = std::make_unique<HttpServer>([this](const HttpRequest& request) { return api_.respond(request); },
                                         HttpLimits{}, [this](const HttpRequest& head) { return api_.admit(head); });
  if (!server_->start(address, port, error)) {
    server_.reset();
    return false;
  }
  app::setLogListener(&WebConsole::onLogLine, &hub_);
  listening_ = true;
  return true;
}

void WebConsole::stop() {
  if (listening_) app::setLogListener(nullptr, nullptr);
  listening_ = false;
  if (server_) server_->stop();
  server_.reset();
  if (!scriptFolder_.empty()) {
    std::error_code ec;
    std::filesystem::remove_all(scriptFolder_, ec);
    scriptFolder_.clear();
  }
}

}  // namespace tarnlift::web
