// A desk with fake workers, a package folder of "system" and "extra" (which
// needs "system") for arm, and the web console's API over it.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "install/install_datagram.h"
#include "tests/install/two_packages.h"
#include "tests/install/fake_desk_workers.h"
#include "web/event_hub.h"
#include "web/web_api.h"
#include "web/web_desk.h"

namespace tarnlift::web::testing {

inline net::MacAddress macOf(uint8_t last) { return {0x4C, 0x5E, 0x0C, 0x01, 0x02, last}; }

class WebFixture : public ::testing::Test {
 protected:
  tarnlift::testing::TempDir packageDir;
  tarnlift::testing::TempDir scriptDir;
  tarnlift::testing::FakeRouterInstaller routers;
  tarnlift::testing::FakeDriveInstaller drives;
  packages::PackageSets sets;
  install::RememberedChoices remembered;
  app::ManualClock clock{50'000'000};
  install::InstallDesk desk{routers, drives, sets, remembered, clock};
  EventHub hub;
  WebDesk webDesk{desk, sets, remembered, nullptr, hub, clock};
  std::unique_ptr<WebApi> api;

  void SetUp() override {
    tarnlift::testing::writeSystemAndExtra(packageDir, 3000);
    desk.setPackageDir(packageDir.path());
    webDesk.setScriptFolder(scriptDir.path());
    useToken("");
  }

  void useToken(const std::string& token, std::vector<std::string> origins = {}) {
    WebAccess access;
    access.token = token;
    access.origins = std::move(origins);
    api = std::make_unique<WebApi>(webDesk, hub, access, clock);
  }

  void announce(uint8_t last, const std::string& label = "R1") {
    install::RouterRecord r;
    r.mac = macOf(last);
    r.label = label;
    r.architecture = 6;  // arm
    r.version = packages::parseVersion("6.41");
    r.minVersion = packages::parseVersion("6.30");
    r.storageSize = 0xFFFFFFFF;
    r.lastSeen = static_cast<int64_t>(clock.nowMicros());
    routers.discovered.push_back(r);
    desk.tick();
    webDesk.publishChanges();
  }

  HttpResponse call(const std::string& method, const std::string& path, const std::string& body = "",
                    std::vector<std::pair<std::string, std::string>> headers = {},
                    const std::string& from = "127.0.0.1") {
    HttpRequest request = head(method, path, from);
    if (!body.empty()) request.headers.emplace_back("content-type", "application/json");
    for (auto& h : headers) request.headers.push_back(h);
    request.body = body;
    return api->handle(request);
  }

  // A request as the parser gives it, with the Host a browser sends.
  static HttpRequest head(const std::string& method, const std::string& path, const std::string& from = "127.0.0.1") {
    HttpRequest request;
    request.method = method;
    request.target = path;
    if (!percentDecode(path, request.path)) request.path = path;
    request.version = "HTTP/1.1";
    request.address = from;
    request.headers.emplace_back("host", "127.0.0.1:8080");
    return request;
  }

  // Logs in with token; the cookie pair "tarnlift_session=..." or empty.
  std::string login(const std::string& token, const std::string& from = "127.0.0.1") {
    HttpResponse r = call("POST", "/api/v1/session", "{\"token\": \"" + token + "\"}", {}, from);
    for (auto& [k, v] : r.headers) {
      if (k == "Set-Cookie") return v.substr(0, v.find(';'));
    }
    return {};
  }
  static std::string headerOf(const HttpResponse& r, const std::string& name) {
    for (auto& [k, v] : r.headers) {
      if (k == name) return v;
    }
    return {};
  }

  nlohmann::json parse(const HttpResponse& response) { return nlohmann::json::parse(response.body); }
  std::string path(uint8_t last, const std::string& tail = "") {
    return "/api/v1/routers/" + install::macText(macOf(last)) + tail;
  }
};

}  // namespace tarnlift::web::testing
