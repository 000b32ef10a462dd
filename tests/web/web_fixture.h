// A desk with fake workers, a package folder of "system" and "extra" (which
// needs "system") for arm, and the web console's API over it.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "install/datagram.h"
#include "tests/install/two_packages.h"
#include "tests/ui/fakes.h"
#include "web/event_hub.h"
#include "web/web_api.h"
#include "web/web_desk.h"

namespace tarnlift::web::testing {

inline MacAddress macOf(uint8_t last) { return {0x4C, 0x5E, 0x0C, 0x01, 0x02, last}; }

class WebFixture : public ::testing::Test {
 protected:
  tarnlift::testing::TempDir packageDir;
  tarnlift::testing::TempDir scriptDir;
  ui::testing::FakeRouterInstaller routers;
  ui::testing::FakeDriveInstaller drives;
  packages::PackageSets sets;
  RememberedChoices remembered;
  ManualClock clock{50'000'000};
  InstallDesk desk{routers, drives, sets, remembered, clock};
  EventHub hub;
  WebDesk webDesk{desk, sets, remembered, nullptr, hub, clock};
  std::unique_ptr<WebApi> api;

  void SetUp() override {
    tarnlift::testing::writeSystemAndExtra(packageDir, 3000);
    desk.setPackageDir(packageDir.path());
    webDesk.setScriptFolder(scriptDir.path());
    useToken("");
  }

  void useToken(const std::string& token) {
    WebAccess access;
    access.token = token;
    api = std::make_unique<WebApi>(webDesk, hub, access);
  }

  void announce(uint8_t last, const std::string& label = "R1") {
    RouterRecord r;
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
                    std::vector<std::pair<std::string, std::string>> headers = {}) {
    HttpRequest request;
    request.method = method;
    request.path = path;
    request.target = path;
    request.version = "HTTP/1.1";
    request.headers.emplace_back("host", "127.0.0.1:8080");
    if (!body.empty()) request.headers.emplace_back("content-type", "application/json");
    for (auto& h : headers) request.headers.push_back(h);
    request.body = body;
    return api->handle(request);
  }

  nlohmann::json parse(const HttpResponse& response) { return nlohmann::json::parse(response.body); }
  std::string path(uint8_t last, const std::string& tail = "") {
    return "/api/v1/routers/" + macText(macOf(last)) + tail;
  }
};

}  // namespace tarnlift::web::testing
