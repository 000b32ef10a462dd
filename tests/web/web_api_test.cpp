// Every endpoint of the API with the desk behind it: status codes, JSON
// shapes, and the window's rules applied through the desk.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/web/web_fixture.h"

namespace tarnlift::web {
namespace {

using nlohmann::json;
using testing::macOf;
using testing::WebFixture;

class WebApiTest : public WebFixture {};

TEST_F(WebApiTest, RoutersListTheTableAsTheWindowShowsIt) {
  announce(1);
  HttpResponse r = call("GET", "/api/v1/routers");
  ASSERT_EQ(r.status, 200);
  EXPECT_EQ(r.contentType, "application/json; charset=utf-8");
  json list = parse(r);
  ASSERT_EQ(list.size(), 1u);
  const json& router = list[0];
  EXPECT_EQ(router["mac"], "4C:5E:0C:01:02:01");
  EXPECT_EQ(router["kind"], "router");
  EXPECT_EQ(router["label"], "R1");
  EXPECT_EQ(router["architecture"], "arm");
  EXPECT_EQ(router["versions"]["installer"], "6.41");
  EXPECT_EQ(router["status"], "Ready");
  EXPECT_EQ(router["statusCode"], 1);
  EXPECT_EQ(router["progress"], 0);
  EXPECT_EQ(router["detail"], "");
  EXPECT_TRUE(router["selection"].is_array());
  EXPECT_TRUE(router["options"].contains("keepConfig"));
  EXPECT_EQ(router["options"]["after"], "reboot");
  EXPECT_TRUE(router["controls"]["install"]);
  EXPECT_TRUE(router["controls"]["cancel"]);
  EXPECT_EQ(call("GET", path(1)).status, 200);
  EXPECT_EQ(call("GET", path(9)).status, 404);
  EXPECT_EQ(call("GET", "/api/v1/routers/not-a-mac").status, 404);
}

TEST_F(WebApiTest, PackagesOfARouterWithTheirTicks) {
  announce(1);
  HttpResponse r = call("GET", path(1, "/packages"));
  ASSERT_EQ(r.status, 200);
  json body = parse(r);
  ASSERT_EQ(body["packages"].size(), 2u);
  const json& extra = body["packages"][0];
  EXPECT_EQ(extra["file"], "extra-6.41.npk");
  EXPECT_EQ(extra["name"], "extra");
  EXPECT_EQ(extra["version"], "6.41");
  EXPECT_EQ(extra["checked"], false);
  EXPECT_TRUE(extra.contains("description"));
  EXPECT_TRUE(extra.contains("architecture"));
}

TEST_F(WebApiTest, SelectionPullsInWhatAPackageNeedsAndClearingDropsItsDependants) {
  announce(1);
  HttpResponse r = call("PUT", path(1, "/selection"), R"({"files": ["extra-6.41.npk"]})");
  ASSERT_EQ(r.status, 200) << r.body;
  json files = parse(r)["selection"];
  EXPECT_EQ(files.size(), 2u);
  EXPECT_NE(std::find(files.begin(), files.end(), "system-6.41.npk"), files.end());
  json packages = parse(call("GET", path(1, "/packages")))["packages"];
  ASSERT_GE(packages.size(), 2u);
  EXPECT_TRUE(packages[0]["checked"]);
  EXPECT_TRUE(packages[1]["checked"]);
  // Clearing "system" drops "extra", which cannot run without it.
  r = call("PUT", path(1, "/selection"), R"({"files": ["extra-6.41.npk"]})");
  r = call("PUT", path(1, "/selection"), R"({"files": []})");
  EXPECT_TRUE(parse(r)["selection"].empty());
  r = call("PUT", path(1, "/selection"), R"({"files": ["nothing.npk"]})");
  EXPECT_EQ(r.status, 400);
  EXPECT_NE(parse(r)["error"].get<std::string>().find("files"), std::string::npos);
  EXPECT_EQ(call("PUT", path(1, "/selection"), R"({"files": "x"})").status, 400);
  EXPECT_EQ(call("PUT", path(1, "/selection"), R"({"files": [1]})").status, 400);
}

TEST_F(WebApiTest, OptionsAreCheckedAndABadValueNamesItsField) {
  announce(1);
  HttpResponse r = call("PUT", path(1, "/options"), R"({"address": "10.0.0.9/24", "gateway": "10.0.0.1", "baudRate": 115200, "after": "none"})");
  ASSERT_EQ(r.status, 200) << r.body;
  json o = parse(r)["options"];
  EXPECT_EQ(o["address"], "10.0.0.9/24");
  EXPECT_EQ(o["gateway"], "10.0.0.1");
  EXPECT_EQ(o["baudRate"], 115200);
  EXPECT_EQ(o["after"], "none");
  EXPECT_EQ(webDesk.afterFor(macOf(1)), install::AfterInstall::None);
  struct Bad {
    const char* body;
    const char* field;
  };
  for (const Bad& bad : {Bad{R"({"address": "10.0.0.9"})", "address"}, Bad{R"({"address": "10.0.0.300/8"})", "address"},
                         Bad{R"({"address": "10.0.0.1/33"})", "address"}, Bad{R"({"gateway": "x"})", "gateway"},
                         Bad{R"({"baudRate": 1234})", "baudRate"}, Bad{R"({"after": "later"})", "after"},
                         Bad{R"({"keepConfig": "yes"})", "keepConfig"}, Bad{R"({"colour": 1})", "colour"}}) {
    r = call("PUT", path(1, "/options"), bad.body);
    EXPECT_EQ(r.status, 400) << bad.body;
    EXPECT_EQ(parse(r)["error"].get<std::string>().rfind(bad.field, 0), 0u) << r.body;
  }
  // Nothing of a refused request was applied.
  EXPECT_EQ(parse(call("GET", path(1)))["options"]["address"], "10.0.0.9/24");
}

TEST_F(WebApiTest, OptionsFollowTheControlStateRules) {
  announce(1);
  ASSERT_EQ(call("PUT", path(1, "/options"), R"({"keepConfig": true})").status, 200);
  HttpResponse r = call("PUT", path(1, "/options"), R"({"address": "10.0.0.9/24"})");
  EXPECT_EQ(r.status, 409) << "keep old configuration locks the address, as in the window";
  EXPECT_EQ(parse(r)["error"].get<std::string>().rfind("address", 0), 0u);
  EXPECT_FALSE(parse(call("GET", path(1)))["controls"]["address"]);
  // Clearing keep-config in the same request unlocks the address.
  r = call("PUT", path(1, "/options"), R"({"keepConfig": false, "address": "10.0.0.9/24"})");
  EXPECT_EQ(r.status, 200) << r.body;
}

TEST_F(WebApiTest, ScriptsAsTextAreStoredForTheInstall) {
  announce(1);
  HttpResponse r = call("PUT", path(1, "/options"), R"({"configureScript": "/system identity set name=a\n"})");
  ASSERT_EQ(r.status, 200) << r.body;
  json o = parse(r)["options"];
  EXPECT_TRUE(o["configureScript"]);
  EXPECT_EQ(o["configureScriptText"], "/system identity set name=a\n");
  EXPECT_EQ(tarnlift::testing::readFile(o["configureScriptFile"]), "/system identity set name=a\n");
}

TEST_F(WebApiTest, InstallStartsTheSessionAndThenIsRefusedWhileInstalling) {
  announce(1);
  ASSERT_EQ(call("PUT", path(1, "/selection"), R"({"files": ["extra-6.41.npk"]})").status, 200);
  ASSERT_EQ(call("PUT", path(1, "/options"), R"({"address": "10.0.0.9/24"})").status, 200);
  HttpResponse r = call("POST", path(1, "/install"));
  ASSERT_EQ(r.status, 202) << r.body;
  EXPECT_EQ(parse(r)["status"], "Installing");
  ASSERT_EQ(routers.started.size(), 1u);
  const install::RouterRecord& request = routers.started[0].first;
  ASSERT_EQ(request.files.size(), 2u);
  EXPECT_NE(request.files[0].find("system-6.41.npk"), std::string::npos) << "dependencies go first";
  EXPECT_EQ(request.address, install::parseDottedAddress("10.0.0.9"));
  EXPECT_EQ(request.netmaskBits, 24u);
  r = call("POST", path(1, "/install"));
  EXPECT_EQ(r.status, 409);
  EXPECT_EQ(call("POST", path(1, "/reboot")).status, 409);
  EXPECT_EQ(call("PUT", path(1, "/selection"), R"({"files": []})").status, 409);
  EXPECT_FALSE(parse(call("GET", path(1)))["controls"]["install"]);
  // The install made "Previous Install", as in the window.
  EXPECT_TRUE(sets.contains("Previous Install"));
}

// Remembered choices (settings written by hand) may hold what no field
// shows: the all-ones address, a netmask above 32. Install reads a row's
// choices as the window's fields read them back (the all-ones address is
// none, the netmask at most 32), so the netmask without an address is
// asked about, and the API answers yes.
TEST_F(WebApiTest, InstallReadsTheRowsChoicesAsTheWindowsFieldsDo) {
  remembered.address = 0xFFFFFFFFu;
  remembered.netmaskBits = 40;
  remembered.gateway = 0xFFFFFFFFu;
  announce(1);
  ASSERT_EQ(call("PUT", path(1, "/selection"), R"({"files": ["system-6.41.npk"]})").status, 200);
  HttpResponse r = call("POST", path(1, "/install"));
  ASSERT_EQ(r.status, 202) << r.body;
  ASSERT_EQ(routers.started.size(), 1u);
  EXPECT_EQ(routers.started[0].first.address, 0u);
  EXPECT_EQ(routers.started[0].first.gateway, 0u);
  EXPECT_EQ(routers.started[0].first.netmaskBits, 32u);
  EXPECT_EQ(parse(r)["warnings"], nlohmann::json::array({install::kAddressQuestion})) << r.body;
}

TEST_F(WebApiTest, InstallWithoutPackagesIsRefused) {
  announce(1);
  HttpResponse r = call("POST", path(1, "/install"));
  EXPECT_EQ(r.status, 409);
  EXPECT_EQ(parse(r)["error"], "No packages selected");
  EXPECT_TRUE(routers.started.empty());
}

TEST_F(WebApiTest, RebootOfAReadyRouterMarksItDoneAndCancelDropsTheRow) {
  announce(1);
  announce(2, "R2");
  HttpResponse r = call("POST", path(1, "/reboot"));
  ASSERT_EQ(r.status, 202);
  EXPECT_EQ(parse(r)["status"], "Done");
  EXPECT_NE(std::find(routers.calls.begin(), routers.calls.end(), "reboot"), routers.calls.end());
  r = call("POST", path(2, "/cancel"));
  ASSERT_EQ(r.status, 202);
  EXPECT_TRUE(parse(r)["removed"]);
  EXPECT_EQ(call("GET", path(2)).status, 404);
  EXPECT_EQ(call("POST", path(2, "/cancel")).status, 404);
}

TEST_F(WebApiTest, SetsAreStoredChosenAndDeleted) {
  announce(1);
  HttpResponse r = call("PUT", "/api/v1/sets/Lab", R"({"files": ["extra-6.41.npk", "system-6.41.npk"]})");
  ASSERT_EQ(r.status, 200) << r.body;
  json list = parse(call("GET", "/api/v1/sets"));
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]["name"], "Lab");
  EXPECT_EQ(list[0]["folder"], packageDir.path());
  EXPECT_EQ(list[0]["files"].size(), 2u);
  r = call("PUT", path(1, "/selection"), R"({"set": "Lab"})");
  ASSERT_EQ(r.status, 200);
  EXPECT_EQ(parse(r)["set"], "Lab");
  EXPECT_TRUE(parse(r)["controls"]["deleteSet"]);
  EXPECT_FALSE(parse(r)["controls"]["saveSet"]);
  EXPECT_EQ(call("PUT", "/api/v1/sets/Empty", R"({"files": []})").status, 400);
  EXPECT_EQ(call("DELETE", "/api/v1/sets/Lab").status, 200);
  EXPECT_EQ(call("DELETE", "/api/v1/sets/Lab").status, 404);
  EXPECT_TRUE(parse(call("GET", path(1)))["set"].is_null());
}

TEST_F(WebApiTest, ErrorsAreJson) {
  EXPECT_EQ(call("GET", "/api/v1/nothing").status, 404);
  EXPECT_EQ(call("GET", "/elsewhere").status, 404);
  HttpResponse r = call("DELETE", "/api/v1/routers");
  EXPECT_EQ(r.status, 405);
  EXPECT_TRUE(parse(r).contains("error"));
  announce(1);
  EXPECT_EQ(call("PUT", path(1, "/options"), "{bad json").status, 400);
  EXPECT_EQ(call("PUT", path(1, "/options"), std::string(100, '[') + std::string(100, ']')).status, 400);
  EXPECT_EQ(call("PUT", path(1, "/options"), "{}", {}).status, 200);
  HttpResponse plain = call("PUT", path(1, "/options"), "", {{"content-type", "text/plain"}});
  EXPECT_EQ(plain.status, 400) << "an empty body is not JSON";
}

TEST_F(WebApiTest, DotDotPathsNameNothing) {
  EXPECT_EQ(call("GET", "/../etc/passwd").status, 404);
  EXPECT_EQ(call("GET", "/api/v1/../../metrics").status, 404);
  EXPECT_EQ(call("GET", "/console.js/..").status, 404);
}

TEST_F(WebApiTest, ATokenIsNeededOnceOneIsSet) {
  useToken("s3cret");
  EXPECT_EQ(call("GET", "/api/v1/routers").status, 401);
  EXPECT_EQ(call("GET", "/metrics").status, 401);
  EXPECT_EQ(call("GET", "/api/v1/routers", "", {{"authorization", "Bearer wrong"}}).status, 401);
  clock.advanceMillis(1000);
  EXPECT_EQ(call("GET", "/api/v1/routers", "", {{"authorization", "Bearer s3cret"}}).status, 200);
  EXPECT_EQ(call("GET", "/").status, 200) << "the page itself holds nothing and asks for the token";
  EXPECT_EQ(call("POST", "/api/v1/session", R"({"token": "nope"})").status, 401);
  clock.advanceMillis(1000);
  HttpResponse login = call("POST", "/api/v1/session", R"({"token": "s3cret"})");
  ASSERT_EQ(login.status, 200);
  EXPECT_TRUE(login.authenticated);
  std::string cookie = headerOf(login, "Set-Cookie");
  EXPECT_NE(cookie.find("HttpOnly"), std::string::npos);
  EXPECT_NE(cookie.find("SameSite=Strict"), std::string::npos);
  std::string pair = cookie.substr(0, cookie.find(';'));
  EXPECT_EQ(call("GET", "/api/v1/routers", "", {{"cookie", pair}}).status, 200);
  EXPECT_EQ(call("GET", "/api/v1/routers", "", {{"cookie", "tarnlift_session=forged"}}).status, 401);
  // With a token, any host name may be used.
  HttpRequest request = head("GET", "/api/v1/routers");
  request.headers = {{"host", "console.example:8080"}, {"authorization", "Bearer s3cret"}};
  EXPECT_EQ(api->handle(request).status, 200);
}

TEST_F(WebApiTest, WritesFromAnotherOriginAreRefused) {
  announce(1);
  EXPECT_EQ(call("POST", path(1, "/cancel"), "", {{"origin", "http://evil.example"}}).status, 403);
  EXPECT_EQ(call("GET", path(1), "", {{"origin", "http://evil.example"}}).status, 200);
  EXPECT_EQ(call("POST", path(1, "/cancel"), "", {{"origin", "http://127.0.0.1:8080"}}).status, 202);
}

TEST_F(WebApiTest, WithoutATokenOnlyTheLoopbackHostNamesThemselvesAreAnswered) {
  for (const char* host : {"localhost", "localhost:8080", "LOCALHOST:8080", "LocalHost", "127.0.0.1", "127.0.0.1:80",
                           "127.1.2.3:65535", "[::1]", "[::1]:8080"}) {
    EXPECT_TRUE(isLoopbackHost(host)) << host;
    HttpRequest request = head("GET", "/api/v1/routers");
    request.headers = {{"host", host}};
    EXPECT_EQ(api->handle(request).status, 200) << host;
  }
  // Names a page elsewhere can point here, and near misses.
  for (const char* host : {"127.0.0.1.attacker.example",
                           "127.0.0.1.attacker.example:8080",
                           "127.attacker.example",
                           "localhost.attacker.example",
                           "attacker.example",
                           "localhost.",
                           "127.0.0.1.",
                           "127.0.0.256",
                           "127.1",
                           "127.0.0.1.5",
                           "0177.0.0.1",
                           "128.0.0.1",
                           "[::1].attacker.example",
                           "[::ffff:127.0.0.1]",
                           "[0:0:0:0:0:0:0:1]",
                           "127.0.0.1:",
                           "127.0.0.1:99999",
                           "127.0.0.1:80:80",
                           "localhost:http",
                           "",
                           " localhost"}) {
    EXPECT_FALSE(isLoopbackHost(host)) << host;
    HttpRequest request = head("GET", "/api/v1/routers");
    request.headers = {{"host", host}};
    HttpResponse r = api->handle(request);
    EXPECT_EQ(r.status, 403) << host;
    EXPECT_TRUE(r.close);
    EXPECT_NE(parse(r)["error"].get<std::string>().find(std::string("'") + host + "'"), std::string::npos) << r.body;
  }
}

TEST_F(WebApiTest, CookieWritesNeedTheirOriginOrTheConsolesHeader) {
  useToken("0123456789abcdef", {"https://provisioning.example"});
  announce(1);
  std::string cookie = login("0123456789abcdef");
  ASSERT_FALSE(cookie.empty());
  auto post = [&](std::vector<std::pair<std::string, std::string>> headers) {
    headers.emplace_back("cookie", cookie);
    return call("PUT", path(1, "/options"), R"({"baudRate": 9600})", headers).status;
  };
  EXPECT_EQ(post({{"origin", "http://127.0.0.1:8080"}}), 200) << "the page's own origin";
  EXPECT_EQ(post({{"origin", "HTTPS://Provisioning.Example"}}), 200) << "a --web-origin";
  EXPECT_EQ(post({{"origin", "https://evil.example"}}), 403);
  EXPECT_EQ(post({{"origin", "http://provisioning.example"}}), 403) << "another scheme is another origin";
  EXPECT_EQ(post({}), 403) << "neither Origin nor the console's header";
  EXPECT_EQ(post({{"x-tarnlift", "1"}}), 200);
  EXPECT_EQ(post({{"x-tarnlift", "0"}}), 403);
  // Reads need neither; a script with the token needs neither.
  EXPECT_EQ(call("GET", path(1), "", {{"cookie", cookie}}).status, 200);
  EXPECT_EQ(
      call("PUT", path(1, "/options"), R"({"baudRate": 0})", {{"authorization", "Bearer 0123456789abcdef"}}).status,
      200);
  // Without the --web-origin the proxy's origin is refused.
  useToken("0123456789abcdef");
  cookie = login("0123456789abcdef");
  EXPECT_EQ(post({{"origin", "https://provisioning.example"}}), 403);
}

TEST_F(WebApiTest, WrongTokensCostTheirAddressAGrowingWait) {
  const std::string token = "0123456789abcdef";
  useToken(token);
  auto bearer = [&](const std::string& t, const std::string& from) {
    return call("GET", "/api/v1/routers", "", {{"authorization", "Bearer " + t}}, from);
  };
  EXPECT_EQ(bearer("guess-1", "10.0.0.66").status, 401);
  HttpResponse r = bearer(token, "10.0.0.66");
  EXPECT_EQ(r.status, 429) << "even the right token waits its turn";
  EXPECT_EQ(headerOf(r, "Retry-After"), "1");
  EXPECT_TRUE(r.close);
  EXPECT_EQ(bearer(token, "10.0.0.7").status, 200) << "another address is not slowed";
  // 1, 2, 4, 8, 16, then 30 s at most; a login counts as a Bearer check does.
  uint32_t waits[] = {2, 4, 8, 16, 30, 30};
  for (uint32_t wait : waits) {
    clock.advanceMillis(999);
    EXPECT_EQ(call("POST", "/api/v1/session", R"({"token": "x"})", {}, "10.0.0.66").status, 429);
    clock.advanceMillis(1000);
    EXPECT_EQ(call("POST", "/api/v1/session", R"({"token": "guess"})", {}, "10.0.0.66").status, 401);
    r = bearer("guess", "10.0.0.66");
    EXPECT_EQ(r.status, 429);
    EXPECT_EQ(headerOf(r, "Retry-After"), std::to_string(wait));
    clock.advanceMillis((wait - 1) * 1000);
  }
  clock.advanceMillis(1000);
  EXPECT_EQ(bearer(token, "10.0.0.66").status, 200);
  EXPECT_EQ(bearer("guess", "10.0.0.66").status, 401);
  EXPECT_EQ(headerOf(bearer(token, "10.0.0.66"), "Retry-After"), "1") << "the right token cleared the count";
}

TEST(GuessBackoff, TheScheduleDoublesUpToThirtySeconds) {
  EXPECT_EQ(GuessBackoff::delayAfter(0), 0u);
  std::vector<uint32_t> schedule;
  for (uint32_t n = 1; n <= 9; ++n) schedule.push_back(GuessBackoff::delayAfter(n));
  EXPECT_EQ(schedule, (std::vector<uint32_t>{1, 2, 4, 8, 16, 30, 30, 30, 30}));
  app::ManualClock clock;
  GuessBackoff backoff(clock, 3);
  EXPECT_EQ(backoff.waitSeconds("a"), 0u);
  backoff.failed("a");
  backoff.failed("a");
  EXPECT_EQ(backoff.waitSeconds("a"), 2u);
  clock.advanceMillis(1500);
  EXPECT_EQ(backoff.waitSeconds("a"), 1u) << "rounded up";
  clock.advanceMillis(500);
  EXPECT_EQ(backoff.waitSeconds("a"), 0u);
  // Fifteen quiet minutes: a new wrong token starts at 1 s again.
  clock.advanceMillis(15 * 60 * 1000);
  EXPECT_EQ(backoff.failed("a"), 1u);
  // A crowd of addresses cannot grow the table past its size.
  for (const char* address : {"b", "c", "d", "e"}) backoff.failed(address);
  EXPECT_EQ(backoff.waitSeconds("e"), 1u);
  EXPECT_EQ(backoff.waitSeconds("a"), 0u) << "the one that failed longest ago made room";
}

TEST(SessionStore, SessionsEndAfterTwelveIdleHoursOrSevenDays) {
  app::ManualClock clock;
  SessionStore sessions(clock);
  std::string id = sessions.create();
  EXPECT_EQ(id.size(), 64u);
  EXPECT_TRUE(sessions.use(id));
  clock.advanceMicros(kSessionIdleMicros - 1'000'000);
  EXPECT_TRUE(sessions.alive(id));
  EXPECT_TRUE(sessions.use(id)) << "a request keeps it alive";
  clock.advanceMicros(kSessionIdleMicros - 1'000'000);
  EXPECT_TRUE(sessions.alive(id));
  clock.advanceMicros(2'000'000);
  EXPECT_FALSE(sessions.alive(id)) << "twelve hours without a request";
  EXPECT_FALSE(sessions.use(id));
  // Busy every hour, it still ends seven days after the login.
  std::string busy = sessions.create();
  uint64_t hour = 3600ull * 1000 * 1000;
  for (int h = 1; h < 7 * 24; ++h) {
    clock.advanceMicros(hour);
    ASSERT_TRUE(sessions.use(busy)) << h;
  }
  clock.advanceMicros(hour);
  EXPECT_FALSE(sessions.use(busy));
}

TEST(SessionStore, AtTheCapTheOldestGoes) {
  app::ManualClock clock;
  SessionStore sessions(clock, 3);
  std::string first = sessions.create();
  clock.advanceMillis(1);
  std::string second = sessions.create();
  clock.advanceMillis(1);
  std::string third = sessions.create();
  clock.advanceMillis(1);
  // Used last, but still the oldest login.
  EXPECT_TRUE(sessions.use(first));
  std::string fourth = sessions.create();
  EXPECT_FALSE(sessions.alive(first));
  EXPECT_TRUE(sessions.alive(second));
  EXPECT_TRUE(sessions.alive(third));
  EXPECT_TRUE(sessions.alive(fourth));
  EXPECT_EQ(sessions.size(), 3u);
}

TEST_F(WebApiTest, AnExpiredSessionOpensNothing) {
  useToken("0123456789abcdef");
  std::string cookie = login("0123456789abcdef");
  EXPECT_EQ(call("GET", "/api/v1/routers", "", {{"cookie", cookie}}).status, 200);
  clock.advanceMicros(kSessionIdleMicros);
  EXPECT_EQ(call("GET", "/api/v1/routers", "", {{"cookie", cookie}}).status, 401);
}

TEST_F(WebApiTest, LogoutEndsTheSessionsStreamsAndAThirdStreamEndsTheFirst) {
  useToken("0123456789abcdef");
  std::string cookie = login("0123456789abcdef");
  std::string other = login("0123456789abcdef");
  auto open = [&](const std::string& c) {
    HttpResponse r = call("GET", "/api/v1/events", "", {{"cookie", c}});
    EXPECT_EQ(r.status, 200);
    EXPECT_TRUE(r.stream);
    return r.stream;
  };
  std::string out;
  auto first = open(cookie);
  auto second = open(cookie);
  auto elsewhere = open(other);
  EXPECT_TRUE(first->pull(out, 65536));
  auto third = open(cookie);
  EXPECT_FALSE(first->pull(out, 65536)) << "two streams a session: the oldest gave way";
  EXPECT_TRUE(second->pull(out, 65536));
  EXPECT_TRUE(third->pull(out, 65536));
  EXPECT_EQ(call("DELETE", "/api/v1/session", "", {{"cookie", cookie}, {"x-tarnlift", "1"}}).status, 200);
  EXPECT_FALSE(second->pull(out, 65536));
  EXPECT_FALSE(third->pull(out, 65536));
  EXPECT_TRUE(elsewhere->pull(out, 65536)) << "another session's stream goes on";
}

TEST_F(WebApiTest, EventsAndTheListNameScriptsTheRouterItselfCarriesThem) {
  announce(1);
  std::string script(200 * 1024, 'x');
  uint64_t start = hub.nextId();
  clock.advanceMillis(300);
  HttpResponse r = call("PUT", path(1, "/options"), json{{"configureScript", script}}.dump());
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_EQ(parse(r)["options"]["configureScriptText"], script);
  std::vector<WebEvent> events;
  ASSERT_TRUE(hub.eventsFrom(start, events));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_LT(events[0].data.size(), 4096u);
  json event = json::parse(events[0].data);
  EXPECT_FALSE(event["options"].contains("configureScriptText"));
  EXPECT_EQ(event["options"]["configureScriptSize"], script.size());
  EXPECT_NE(event["options"]["configureScriptFile"].get<std::string>().find("autorun.rsc"), std::string::npos);
  json list = parse(call("GET", "/api/v1/routers"));
  ASSERT_FALSE(list.empty());
  EXPECT_FALSE(list[0]["options"].contains("configureScriptText"));
  EXPECT_EQ(list[0]["options"]["configureScriptSize"], script.size());
  EXPECT_EQ(parse(call("GET", path(1)))["options"]["configureScriptText"], script);
}

TEST_F(WebApiTest, ASetMayNameOnlyFoldersBesideThePackagesOrOnesAlreadyShown) {
  std::filesystem::path parent = std::filesystem::path(packageDir.path()).parent_path();
  auto put = [&](const std::string& folder) {
    return call("PUT", "/api/v1/sets/Lab", json{{"files", {"system-6.41.npk"}}, {"folder", folder}}.dump());
  };
  EXPECT_EQ(put(packageDir.path()).status, 200);
  EXPECT_EQ(put((parent / "other-packages").string()).status, 200) << "beside the package folder";
  EXPECT_EQ(put((parent / "a" / "b").string()).status, 200);
  HttpResponse r = put("/etc");
  EXPECT_EQ(r.status, 400);
  EXPECT_EQ(parse(r)["error"].get<std::string>().rfind("folder:", 0), 0u);
  EXPECT_EQ(put((parent / ".." / "elsewhere").string()).status, 400);
  EXPECT_EQ(put(parent.string()).status, 400) << "the parent itself is not under it";
  EXPECT_EQ(put((parent / "x" / ".." / ".." / "y").string()).status, 400);
  // A folder the console already shows (a set chosen in the window) stays choosable.
  packages::PackageChoice shown;
  shown.folder = "/srv/elsewhere";
  shown.files = {"system-6.41.npk"};
  sets.storeSet("Shown", shown);
  EXPECT_EQ(put("/srv/elsewhere").status, 200);
}

TEST_F(WebApiTest, SetNamesAreDecodedPerSegment) {
  HttpResponse r = call("PUT", "/api/v1/sets/Lab%2FRack%201", R"({"files": ["system-6.41.npk"]})");
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_EQ(parse(r)["name"], "Lab/Rack 1");
  EXPECT_EQ(parse(call("GET", "/api/v1/sets"))[0]["name"], "Lab/Rack 1");
  EXPECT_EQ(call("DELETE", "/api/v1/sets/Lab%2FRack%201").status, 200);
  EXPECT_EQ(call("PUT", "/api/v1/sets/%2e%2e", R"({"files": ["x"]})").status, 404);
  std::vector<std::string> parts;
  EXPECT_TRUE(pathSegments("/api/v1/sets/a%2Fb?x=%2F", parts));
  EXPECT_EQ(parts, (std::vector<std::string>{"api", "v1", "sets", "a/b"}));
  EXPECT_FALSE(pathSegments("/api//v1", parts));
  EXPECT_FALSE(pathSegments("/api/%2E", parts));
  EXPECT_FALSE(pathSegments("/api/%zz", parts));
}

TEST_F(WebApiTest, TheConsoleIsCompiledIn) {
  HttpResponse page = call("GET", "/");
  ASSERT_EQ(page.status, 200);
  EXPECT_EQ(page.contentType, "text/html; charset=utf-8");
  EXPECT_NE(page.body.find("Routers/Drives"), std::string::npos);
  bool csp = false;
  for (auto& [k, v] : page.headers) csp = csp || k == "Content-Security-Policy";
  EXPECT_TRUE(csp);
  EXPECT_EQ(call("GET", "/console.js").status, 200);
  EXPECT_EQ(call("GET", "/console.css").status, 200);
  EXPECT_EQ(call("POST", "/").status, 405);
}

TEST_F(WebApiTest, MetricsCountRowsInstallsAndBytes) {
  announce(1);
  announce(2, "R2");
  ASSERT_EQ(call("PUT", path(1, "/selection"), R"({"files": ["extra-6.41.npk"]})").status, 200);
  ASSERT_EQ(call("POST", path(1, "/install")).status, 202);
  // The session sends everything and the router waits for its reboot.
  routers.sessions[macOf(1)] = {install::kStatusWaitingReboot, 3100, 3100, "Installation finished successfully"};
  clock.advanceMillis(250);
  desk.tick();
  webDesk.publishChanges();
  routers.sessions[macOf(1)] = {install::kStatusDone, 3100, 3100, "Done"};
  clock.advanceMillis(250);
  desk.tick();
  webDesk.publishChanges();
  HttpResponse r = call("GET", "/metrics");
  ASSERT_EQ(r.status, 200);
  EXPECT_EQ(r.contentType, "text/plain; version=0.0.4; charset=utf-8");
  EXPECT_NE(r.body.find("tarnlift_routers{status=\"Ready\"} 1\n"), std::string::npos) << r.body;
  EXPECT_NE(r.body.find("tarnlift_routers{status=\"Done\"} 1\n"), std::string::npos);
  EXPECT_NE(r.body.find("tarnlift_installs_total{result=\"done\"} 1\n"), std::string::npos);
  EXPECT_NE(r.body.find("tarnlift_installs_total{result=\"failed\"} 0\n"), std::string::npos);
  EXPECT_NE(r.body.find("tarnlift_install_bytes_sent_total 3100\n"), std::string::npos);
  EXPECT_NE(r.body.find("process_start_time_seconds "), std::string::npos);
  EXPECT_NE(r.body.find("tarnlift_bootp_replies_total 0\n"), std::string::npos);
}

TEST_F(WebApiTest, RouterEventsAreSentOnChangeAtMostFourASecond) {
  uint64_t start = hub.nextId();
  announce(1);
  std::vector<WebEvent> events;
  ASSERT_TRUE(hub.eventsFrom(start, events));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].type, "router");
  EXPECT_EQ(nlohmann::json::parse(events[0].data)["status"], "Ready");
  start = hub.nextId();
  // A change within 250 ms of the last event waits for the next tick.
  clock.advanceMillis(100);
  ASSERT_EQ(call("PUT", path(1, "/options"), R"({"baudRate": 9600})").status, 200);
  ASSERT_TRUE(hub.eventsFrom(start, events));
  EXPECT_TRUE(events.empty());
  clock.advanceMillis(150);
  webDesk.publishChanges();
  ASSERT_TRUE(hub.eventsFrom(start, events));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(nlohmann::json::parse(events[0].data)["options"]["baudRate"], 9600);
  // Nothing changed: nothing sent.
  clock.advanceMillis(1000);
  webDesk.publishChanges();
  ASSERT_TRUE(hub.eventsFrom(start + 1, events));
  EXPECT_TRUE(events.empty());
  // A row that goes is "removed".
  ASSERT_EQ(call("POST", path(1, "/cancel")).status, 202);
  ASSERT_TRUE(hub.eventsFrom(start + 1, events));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].type, "removed");
  EXPECT_EQ(nlohmann::json::parse(events[0].data)["mac"], "4C:5E:0C:01:02:01");
}

TEST_F(WebApiTest, NetbootShowsWhatTheOwnerReports) {
  NetbootSnapshot n;
  n.enabled = true;
  n.clientAddress = "192.168.88.20";
  n.interfaceAddress = "192.168.88.2";
  n.images = {{2, 4096, "built in"}};
  n.clients = {{"02:00:00:00:00:01", 2, "2026-01-01T00:00:00Z"}};
  webDesk.setNetboot(n);
  json body = parse(call("GET", "/api/v1/netboot"));
  EXPECT_EQ(body["enabled"], true);
  EXPECT_EQ(body["clientAddress"], "192.168.88.20");
  EXPECT_EQ(body["interface"]["address"], "192.168.88.2");
  EXPECT_EQ(body["bootImages"][0]["size"], 4096);
  EXPECT_EQ(body["clients"][0]["class"], 2);
}

}  // namespace
}  // namespace tarnlift::web

namespace tarnlift::web {
namespace {

TEST_F(WebApiTest, BytesThatAreNotUtf8NeitherThrowNorBreakTheJson) {
  announce(1, std::string("R\xB6\xFF"));
  HttpResponse r = call("GET", "/api/v1/routers");
  ASSERT_EQ(r.status, 200);
  EXPECT_EQ(parse(r)[0]["label"], "R\xEF\xBF\xBD\xEF\xBF\xBD");
  r = call("GET", "/api/v1/routers/4C:5E:0\xB6:01:02:03");
  EXPECT_EQ(r.status, 404);
  EXPECT_TRUE(nlohmann::json::accept(r.body));
}

}  // namespace
}  // namespace tarnlift::web

namespace tarnlift::web {
namespace {

TEST_F(WebApiTest, TheSessionSaysWhetherATokenIsNeededAndCanBeForgotten) {
  nlohmann::json open = parse(call("GET", "/api/v1/session"));
  EXPECT_EQ(open["tokenRequired"], false);
  EXPECT_EQ(open["authorised"], true);
  useToken("s3cret");
  nlohmann::json closed = parse(call("GET", "/api/v1/session"));
  EXPECT_EQ(closed["tokenRequired"], true);
  EXPECT_EQ(closed["authorised"], false);
  HttpResponse login = call("POST", "/api/v1/session", R"({"token": "s3cret"})");
  std::string pair;
  for (auto& [k, v] : login.headers) {
    if (k == "Set-Cookie") pair = v.substr(0, v.find(';'));
  }
  ASSERT_FALSE(pair.empty());
  EXPECT_EQ(parse(call("GET", "/api/v1/session", "", {{"cookie", pair}}))["authorised"], true);
  EXPECT_EQ(call("DELETE", "/api/v1/session", "", {{"cookie", pair}, {"x-tarnlift", "1"}}).status, 200);
  EXPECT_EQ(call("GET", "/api/v1/routers", "", {{"cookie", pair}}).status, 401) << "a forgotten session opens nothing";
  EXPECT_EQ(call("PUT", "/api/v1/session", "{}").status, 405);
  EXPECT_EQ(call("POST", "/api/v1/session", R"({"tok": 1})").status, 400);
}

}  // namespace
}  // namespace tarnlift::web

namespace tarnlift::web {
namespace {

TEST_F(WebApiTest, SelectAllAndSelectNoneAsTheWindowsButtons) {
  announce(1);
  HttpResponse r = call("PUT", path(1, "/selection"), R"({"select": "all"})");
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_EQ(parse(r)["selection"].size(), 2u);
  EXPECT_TRUE(parse(r)["controls"]["selectNone"]);
  r = call("PUT", path(1, "/selection"), R"({"select": "none"})");
  EXPECT_TRUE(parse(r)["selection"].empty());
  EXPECT_EQ(call("PUT", path(1, "/selection"), R"({"select": "some"})").status, 400);
  ASSERT_EQ(call("POST", path(1, "/reboot")).status, 202);
  EXPECT_EQ(call("PUT", path(1, "/selection"), R"({"select": "all"})").status, 409) << "only a Ready router";
}

}  // namespace
}  // namespace tarnlift::web

namespace tarnlift::web {
namespace {

TEST_F(WebApiTest, PackagesAreReadAgainWhenTheOwnerSaysTheFolderChanged) {
  announce(1);
  ASSERT_EQ(parse(call("GET", path(1, "/packages")))["packages"].size(), 2u);
  mkpkg::PackageWriter()
      .package("more", packages::parseVersion("6.41"))
      .architecture("arm")
      .writeFile(packageDir.file("more-6.41.npk"));
  EXPECT_EQ(parse(call("GET", path(1, "/packages")))["packages"].size(), 2u) << "the list is kept until told";
  webDesk.rereadPackages();
  EXPECT_EQ(parse(call("GET", path(1, "/packages")))["packages"].size(), 3u);
}

}  // namespace
}  // namespace tarnlift::web
