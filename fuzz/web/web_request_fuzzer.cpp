// Feeds arbitrary bytes to the web console as one HTTP request: the head
// goes through the parser, then the whole request through the API over a
// desk with one router, so routing, the token and origin rules and every
// JSON body meet the input. The event stream is not started (it would wait).
#include <cstddef>
#include <cstdint>
#include <deque>
#include <sstream>
#include <string>

#include "app/clock.h"
#include "app/log.h"
#include "install/desk.h"
#include "install/install_datagram.h"
#include "web/event_hub.h"
#include "web/http_message.h"
#include "web/web_api.h"
#include "web/web_desk.h"

using namespace tarnlift;

namespace {

class OneRouter : public install::RouterInstaller {
 public:
  std::deque<install::RouterRecord> discovered;
  bool popDiscovered(install::RouterRecord& record) override {
    if (discovered.empty()) return false;
    record = discovered.front();
    discovered.pop_front();
    return true;
  }
  void start(const install::RouterRecord&, bool) override { started = true; }
  install::SessionStatus status(const net::MacAddress&) override {
    return started ? install::SessionStatus{install::kStatusInstalling, 100, 10, "Sending"} : install::SessionStatus{};
  }
  void reboot(const net::MacAddress&) override {}
  void shutdown(const net::MacAddress&) override {}
  void remove(const net::MacAddress&) override { started = false; }
  bool started = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static std::ostringstream sink;
  app::setLogStream(sink);
  sink.str("");
  std::string input(reinterpret_cast<const char*>(data), size);
  size_t end = input.find("\r\n\r\n");
  web::HttpRequest request;
  if (web::parseRequestHead(std::string_view(input).substr(0, end), request) != 0) return 0;
  if (end != std::string::npos) request.body = input.substr(end + 4, web::kMaxBodyBytes);

  OneRouter routers;
  install::NoDriveInstaller drives;
  packages::PackageSets sets;
  install::RememberedChoices remembered;
  app::ManualClock clock(50'000'000);
  install::InstallDesk desk(routers, drives, sets, remembered, clock);
  desk.setPackageDir("/nonexistent/tarnlift-fuzz");
  install::RouterRecord r;
  r.mac = {0x4C, 0x5E, 0x0C, 0x01, 0x02, 0x03};
  r.architecture = 6;
  r.label = "R";
  r.lastSeen = 50'000'000;
  routers.discovered.push_back(r);
  desk.tick();
  web::EventHub hub(64);
  web::WebDesk webDesk(desk, sets, remembered, nullptr, hub, clock);
  web::WebAccess access;
  // Half the inputs meet a token, so both roads are walked.
  if (size % 2 == 1) access.token = "fuzz-token-0123456789";
  access.origins = {"https://proxy.example"};
  web::WebApi api(webDesk, hub, access, clock);
  request.address = "192.0.2.7";
  web::HttpResponse response = api.handle(request);
  if (response.status < 200 || response.status > 599) __builtin_trap();
  if (!response.stream && response.contentType.rfind("application/json", 0) == 0) {
    if (!nlohmann::json::accept(response.body)) __builtin_trap();
  }
  std::string head = web::responseHead(response, request.keepAlive());
  if (head.find("\r\n\r\n") == std::string::npos) __builtin_trap();
  return 0;
}
