// The headless front end's engine with simulated routers in memory: what
// `tarnlift serve` prints and does, in milliseconds of test time.
#include "install/headless.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>

#include "app/registry.h"
#include "temp_dir.h"
#include "tests/app/capture_log.h"
#include "tests/install/sim_segment.h"
#include "tests/install/two_packages.h"
#include "tools/routersim/sim_router.h"

namespace tarnlift {
namespace {

using namespace install;

using routersim::SimRouter;
using routersim::SimRouterConfig;
using testing::Passed;
using testing::Segment;

class HeadlessTest : public ::testing::Test {
 protected:
  testing::CapturedLog log;
  testing::TempDir dir;
  app::ManualClock clock{1'000'000};
  Segment segment{clock};
  InstallServer server{segment, clock};
  packages::PackageSets sets;
  RememberedChoices remembered;
  std::ostringstream out, err;
  std::vector<std::unique_ptr<SimRouter>> sims;
  std::unique_ptr<HeadlessInstaller> installer;

  void SetUp() override { testing::writeSystemAndExtra(dir, 5000); }
  void addRouter(SimRouterConfig config, int64_t repeatMs = 100) {
    config.repeatMs = repeatMs;
    sims.push_back(
        std::make_unique<SimRouter>(config, [this](const uint8_t* d, size_t n) { segment.fromRouter(d, n); }));
  }
  void make(HeadlessOptions options) {
    if (options.packageDir.empty()) options.packageDir = dir.path();
    installer = std::make_unique<HeadlessInstaller>(server, clock, options, sets, remembered, out, err);
  }
  // Runs the server loop, the routers and the 250 ms timer in test time.
  void run(int64_t ms, size_t untilFinished = 0) {
    for (int64_t t = 0; t < ms; ++t) {
      int64_t now = static_cast<int64_t>(clock.nowMicros() / 1000);
      testing::passMillisecond(segment, server, sims, now);
      if (now % 250 == 0) installer->tick();
      if (untilFinished != 0 && installer->finished() >= untilFinished) return;
      clock.advanceMillis(1);
    }
  }
  // Installs system-6.41.npk with JSON lines until one router ended, and a
  // second more for what is still on its way.
  void installSystemWithJson() {
    HeadlessOptions options;
    options.select = {"system-6.41.npk"};
    options.json = true;
    make(options);
    run(60'000, 1);
    run(1'000);
  }
  static SimRouterConfig router(uint8_t last) {
    SimRouterConfig c;
    c.mac = {0x02, 0, 0, 0, 0, last};
    return c;
  }
};

TEST_F(HeadlessTest, InstallsEveryAnnouncingRouterAndPrintsFinalLines) {
  addRouter(router(1));
  addRouter(router(2));
  HeadlessOptions options;
  options.select = {"extra-6.41.npk"};
  make(options);
  run(60'000, 2);
  EXPECT_EQ(installer->succeeded(), 2u);
  EXPECT_NE(out.str().find("02:00:00:00:00:01\tInstallation finished successfully\n"), std::string::npos) << out.str();
  EXPECT_NE(out.str().find("02:00:00:00:00:02\tInstallation finished successfully\n"), std::string::npos);
  // Ticking extra pulled in system, which is sent first.
  ASSERT_EQ(sims[0]->files().size(), 3u);
  EXPECT_EQ(sims[0]->files()[0].name, "system-6.41.npk");
  EXPECT_EQ(sims[0]->files()[1].name, "extra-6.41.npk");
  EXPECT_EQ(sims[0]->files()[2].name, "autorun.scr");
  EXPECT_EQ(sims[0]->term(), "TERM\nInstallation successful\n");
  EXPECT_TRUE(sets.contains(packages::kPreviousInstallSet));
}

TEST_F(HeadlessTest, OnlyNamedRoutersAreInstalled) {
  addRouter(router(1));
  addRouter(router(2));
  HeadlessOptions options;
  options.select = {"system-6.41.npk"};
  options.macs = {router(2).mac};
  make(options);
  run(20'000, 1);
  run(3'000);
  EXPECT_EQ(installer->finished(), 1u);
  EXPECT_EQ(sims[0]->offers(), 0);
  EXPECT_EQ(sims[1]->outcome(), "installed");
  ASSERT_NE(installer->table().find(router(1).mac), nullptr);
  EXPECT_EQ(installer->table().find(router(1).mac)->statusCell, "Ready");
}

TEST_F(HeadlessTest, RefusalIsPrintedWithTheSystemsText) {
  SimRouterConfig old = router(1);
  old.minVersion = "6.45";
  old.version = "6.30";
  addRouter(old);
  HeadlessOptions options;
  options.select = {"system-6.41.npk"};
  make(options);
  run(5'000, 1);
  EXPECT_EQ(installer->failed(), 1u);
  EXPECT_NE(out.str().find("02:00:00:00:00:01\ttarnlift version 6.30 is too old board supports versions from 6.45\n"),
            std::string::npos)
      << out.str();
  EXPECT_EQ(sims[0]->offers(), 0);
}

// A folder with nothing for the router's architecture has an empty default.
TEST_F(HeadlessTest, NothingSelectedIsRefused) {
  testing::TempDir empty;
  addRouter(router(1));
  HeadlessOptions options;
  options.packageDir = empty.path();
  make(options);
  run(3'000, 1);
  EXPECT_NE(out.str().find("02:00:00:00:00:01\tNo packages selected\n"), std::string::npos) << out.str();
}

TEST_F(HeadlessTest, ShutdownAfterInstallAndFailureLine) {
  addRouter(router(1));
  SimRouterConfig nack = router(2);
  nack.answer = "NACK";
  addRouter(nack);
  HeadlessOptions options;
  options.select = {"system-6.41.npk"};
  options.after = AfterInstall::Shutdown;
  make(options);
  run(60'000, 2);
  EXPECT_EQ(sims[0]->term(), "TERM\nshutdown\n");
  EXPECT_EQ(installer->failed(), 1u);
  EXPECT_NE(out.str().find("02:00:00:00:00:02\tInstallation failed: router refused installation\n"), std::string::npos);
}

TEST_F(HeadlessTest, NoCommandWithAfterNone) {
  SimRouterConfig config = router(1);
  config.termWaitMs = 10'000;
  addRouter(config);
  HeadlessOptions options;
  options.select = {"system-6.41.npk"};
  options.after = AfterInstall::None;
  make(options);
  run(60'000, 1);
  EXPECT_EQ(installer->succeeded(), 1u);
  EXPECT_EQ(sims[0]->term(), "");
}

// The end of the files ("FILE\n") is lost once: the router repeats its
// "RETR" and gets "FILE\n" again, because "TERM" waits for the router's
// "WTRM". Had "TERM" gone out when the router began waiting for its reboot,
// it would have answered the repeat, one past what the router awaits, and
// the router would never have completed.
TEST_F(HeadlessTest, ALostEndOfFilesIsSentAgainAndTermWaitsForTheRoutersWtrm) {
  // The router repeats after a second: the desk's tick (250 ms) comes first.
  addRouter(router(1), 1'000);
  segment.dropToRouters = [lost = 0](const std::string& payload) mutable { return payload == "FILE\n" && lost++ == 0; };
  installSystemWithJson();
  ASSERT_EQ(installer->succeeded(), 1u) << out.str();
  EXPECT_EQ(sims[0]->outcome(), "installed");
  EXPECT_EQ(sims[0]->files().size(), 2u);  // system-6.41.npk, autorun.scr
  EXPECT_EQ(sims[0]->term(), "TERM\nInstallation successful\n");
  size_t lost = segment.find("I FILE\n lost");
  size_t repeat = segment.find("R RETR", lost);
  size_t again = segment.find("I FILE\n", lost);
  size_t wtrm = segment.find("R WTRM");
  size_t term = segment.find("I TERM");
  ASSERT_LT(lost, segment.passed.size());
  EXPECT_LT(repeat, again);
  EXPECT_LT(again, wtrm);
  EXPECT_LT(wtrm, term);
  ASSERT_LT(term, segment.passed.size());
  EXPECT_NE(out.str().find("\"result\":\"installed\",\"confirmed\":true,"), std::string::npos) << out.str();
}

// Every "WTRM" is lost: the session ends in success 30 s after "FILE\n",
// and only then does "TERM" go out; the results say the router never
// confirmed.
TEST_F(HeadlessTest, WithEveryWtrmLostTermFollowsTheSessionsSuccessAfterItsWait) {
  SimRouterConfig patient = router(1);
  patient.termWaitMs = 40'000;
  addRouter(patient);
  segment.dropToServer = [](const std::string& payload) { return payload.rfind("WTRM", 0) == 0; };
  installSystemWithJson();
  ASSERT_EQ(installer->succeeded(), 1u) << out.str();
  size_t end = segment.find("I FILE\n");
  size_t term = segment.find("I TERM");
  ASSERT_LT(term, segment.passed.size());
  EXPECT_LT(segment.find("R WTRM lost"), term);
  EXPECT_GE(segment.passed[term].ms - segment.passed[end].ms, 30'000);
  EXPECT_EQ(sims[0]->term(), "TERM\nInstallation successful\n");
  EXPECT_NE(out.str().find("\"result\":\"installed\",\"confirmed\":false,"), std::string::npos) << out.str();
}

TEST_F(HeadlessTest, AddressQuestionIsAnsweredYesAndSaid) {
  addRouter(router(1));
  HeadlessOptions options;
  options.select = {"system-6.41.npk"};
  options.choices.address = addressFromText("10.0.0.1");
  make(options);
  run(30'000, 1);
  EXPECT_NE(err.str().find(kAddressQuestion), std::string::npos);
  EXPECT_EQ(installer->succeeded(), 1u);
}

TEST_F(HeadlessTest, SavedPackageSetIsUsed) {
  addRouter(router(1));
  app::Registry settings;
  settings.openRoot(app::kSettingsKeyPath, app::kFullAccess, app::makeMemorySettingsStore());
  app::Registry setsKey;
  setsKey.openSubKey(settings, packages::kPackageSetsKey);
  setsKey.writeMultiString("Lab", {dir.path(), "system-6.41.npk"});
  sets.loadSets(settings);
  ASSERT_TRUE(sets.contains("Lab"));
  HeadlessOptions options;
  options.setName = "Lab";
  make(options);
  run(30'000, 1);
  EXPECT_EQ(installer->succeeded(), 1u);
  ASSERT_GE(sims[0]->files().size(), 1u);
  EXPECT_EQ(sims[0]->files()[0].name, "system-6.41.npk");
}

TEST_F(HeadlessTest, ProgressLinesWhilePlain) {
  addRouter(router(1));
  HeadlessOptions options;
  options.select = {"system-6.41.npk"};
  make(options);
  run(30'000, 1);
  EXPECT_NE(out.str().find("02:00:00:00:00:01\tSimRouter\tInstalling\tSending offer...\t0%\t0\n"), std::string::npos)
      << out.str();
  EXPECT_EQ(out.str().find("\x1b["), std::string::npos);
}

TEST_F(HeadlessTest, LiveProgressRedrawsOnATerminal) {
  addRouter(router(1));
  HeadlessOptions options;
  options.select = {"system-6.41.npk"};
  options.liveProgress = true;
  make(options);
  run(30'000, 1);
  EXPECT_NE(out.str().find("\x1b["), std::string::npos);
  EXPECT_NE(out.str().find("02:00:00:00:00:01\tInstallation finished successfully\n"), std::string::npos);
}

// Unlike the window, serve does not install "Previous Install": without a
// set or files a router gets the folder's default selection, what "Select
// all" ticks, whatever an earlier run remembered.
TEST_F(HeadlessTest, ANewRouterIsGivenTheFoldersDefaultSelectionNotPreviousInstall) {
  sets.rememberPreviousInstall({"", dir.path(), {"system-6.41.npk"}});
  addRouter(router(1));
  make(HeadlessOptions{});
  run(60'000, 1);
  EXPECT_EQ(installer->succeeded(), 1u) << out.str();
  ASSERT_EQ(sims[0]->files().size(), 3u);
  EXPECT_EQ(sims[0]->files()[0].name, "system-6.41.npk");
  EXPECT_EQ(sims[0]->files()[1].name, "extra-6.41.npk");
  EXPECT_TRUE(log.contains("router 02:00:00:00:00:01 gets the package folder's default selection (2 packages)"));
}

// A row whose session ended (the router started over) is handed status 0 and
// stays until the router announces itself again.
TEST_F(HeadlessTest, ARowWhoseSessionIsGoneTakesStatusZeroAndStays) {
  addRouter(router(1));
  HeadlessOptions options;
  options.select = {"system-6.41.npk"};
  make(options);
  sims.clear();  // a router that announced once and went quiet
  RouterRecord record;
  record.mac = router(1).mac;
  record.label = "Gone";
  record.architecture = architectureFromText("arm");
  record.lastSeen = static_cast<int64_t>(clock.nowMicros());
  server.discovered().push(record);
  installer->tick();
  RouterRow* row = installer->table().find(record.mac);
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(row->record.status, kStatusInstalling);
  server.remove(record.mac);
  installer->tick();
  row = installer->table().find(record.mac);
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(row->record.status, kStatusNone);
  EXPECT_EQ(row->statusCell, "");
  EXPECT_EQ(installer->finished(), 0u);
  // The next announcement replaces it and installs it again.
  server.discovered().push(record);
  installer->tick();
  EXPECT_EQ(installer->table().find(record.mac)->record.status, kStatusInstalling);
}

TEST_F(HeadlessTest, TheBeaconIsSentOnEveryFourthTick) {
  int sent = 0;
  HeadlessOptions options;
  options.sendBeacon = [&sent] { ++sent; };
  make(options);
  for (int i = 0; i < 3; ++i) installer->tick();
  EXPECT_EQ(sent, 0);
  installer->tick();
  EXPECT_EQ(sent, 1);
  for (int i = 0; i < 8; ++i) installer->tick();
  EXPECT_EQ(sent, 3);
}

}  // namespace
}  // namespace tarnlift

namespace tarnlift {
namespace {

using namespace install;

TEST_F(HeadlessTest, HeldRoutersStayReadyUntilAnotherFrontEndInstallsThem) {
  addRouter(router(1));
  addRouter(router(2));
  HeadlessOptions options;
  options.select = {"system-6.41.npk"};
  options.hold = true;
  // The other front end's choice for router 1; the rest keep `after`.
  options.afterFor = [](const MacAddress& mac) { return mac[5] == 1 ? AfterInstall::Shutdown : AfterInstall::Reboot; };
  make(options);
  run(5'000);
  EXPECT_EQ(sims[0]->offers(), 0);
  EXPECT_EQ(sims[1]->offers(), 0);
  ASSERT_NE(installer->table().find(router(1).mac), nullptr);
  EXPECT_EQ(installer->table().find(router(1).mac)->statusCell, "Ready");
  // An Install from elsewhere (the web console) on the same desk.
  RouterRecord& r = installer->table().find(router(1).mac)->record;
  packages::PackageCatalogue catalogue;
  catalogue.setFolder(dir.path(), r.architecture);
  packages::PackageChoice choice{"", dir.path(), {}};
  catalogue.toggle(static_cast<size_t>(catalogue.findByFileName("system-6.41.npk")), choice.files);
  InstallContext context{catalogue, choice, sets, remembered, *installer,
                         [this](const RouterRecord& request) { server.start(request, true); }};
  ASSERT_EQ(runInstallCommand(&r, InstallChoices{}, context), InstallOutcome::Started);
  SessionStatus s = server.status(r.mac);
  installer->table().setStatus(r.mac, s.status, r.totalSize, s.progress, s.statusText);
  run(60'000, 1);
  EXPECT_EQ(installer->succeeded(), 1u);
  EXPECT_EQ(sims[0]->term(), "TERM\nshutdown\n");
  EXPECT_EQ(sims[1]->offers(), 0);
  EXPECT_EQ(installer->table().find(router(2).mac)->statusCell, "Ready");
}

TEST_F(HeadlessTest, InventoryValuesWinOverTheCommandLinesPerRouter) {
  std::string out1 = dir.file("out");
  for (uint8_t last : {1, 2}) {
    SimRouterConfig c = router(last);
    c.outputDir = out1;
    addRouter(c);
  }
  HeadlessOptions options;
  options.select = {"system-6.41.npk"};
  options.choices.address = addressFromText("10.0.0.9");
  options.choices.netmaskBits = 24;
  std::string error;
  ASSERT_TRUE(options.inventory.parse("[02:00:00:00:00:01]\naddress = 10.0.0.5/16\nselect = extra-6.41.npk\n", "f", "",
                                      nullptr, error))
      << error;
  make(options);
  run(60'000, 2);
  ASSERT_EQ(installer->succeeded(), 2u) << out.str();
  std::string first = testing::readFile(out1 + "/02-00-00-00-00-01/autorun.scr");
  std::string second = testing::readFile(out1 + "/02-00-00-00-00-02/autorun.scr");
  EXPECT_NE(first.find("address=10.0.0.5/16 "), std::string::npos) << first;
  EXPECT_NE(second.find("address=10.0.0.9/24 "), std::string::npos) << second;
  // The row's selection (extra pulls in system) against the command line's.
  EXPECT_EQ(sims[0]->files().size(), 3u);
  EXPECT_EQ(sims[1]->files().size(), 2u);
}

TEST_F(HeadlessTest, OnlyKnownRoutersAreInstalledAndAnUnknownOneIsLoggedOnce) {
  addRouter(router(1));
  addRouter(router(2));
  addRouter(router(3));
  HeadlessOptions options;
  options.select = {"system-6.41.npk"};
  options.onlyKnown = true;
  options.macs = {router(3).mac};
  std::string error;
  ASSERT_TRUE(options.inventory.parse("[02:00:00:00:00:01]\nlabel = a\n", "f", "", nullptr, error)) << error;
  make(options);
  run(30'000, 2);
  run(5'000);
  EXPECT_EQ(installer->succeeded(), 2u);
  EXPECT_EQ(sims[0]->outcome(), "installed");
  EXPECT_EQ(sims[1]->offers(), 0);
  EXPECT_EQ(sims[2]->outcome(), "installed");
  std::string logged = log.text();
  size_t first = logged.find("unknown router 02:00:00:00:00:02 left alone");
  ASSERT_NE(first, std::string::npos) << logged;
  EXPECT_EQ(logged.find("unknown router 02:00:00:00:00:02", first + 1), std::string::npos);
}

TEST_F(HeadlessTest, JsonLinesReplaceTheTableWithEscapedStrings) {
  SimRouterConfig awkward = router(1);
  awkward.label = "Desk \"A\"\tcaf\xC3\xA9\xFF";
  addRouter(awkward);
  addRouter(router(2));
  HeadlessOptions options;
  options.select = {"system-6.41.npk"};
  options.json = true;
  make(options);
  run(30'000, 2);
  ASSERT_EQ(installer->succeeded(), 2u);
  std::istringstream lines(out.str());
  std::string line;
  size_t seen = 0, ended = 0, progress = 0;
  while (std::getline(lines, line)) {
    ASSERT_EQ(line.front(), '{') << line;
    ASSERT_EQ(line.back(), '}') << line;
    for (char c : line) ASSERT_TRUE(c >= 0x20 && c < 0x7F) << line;
    seen += line.rfind("{\"event\":\"seen\"", 0) == 0;
    ended += line.rfind("{\"event\":\"ended\"", 0) == 0;
    progress += line.rfind("{\"event\":\"progress\"", 0) == 0;
  }
  EXPECT_EQ(seen, 2u);
  EXPECT_EQ(ended, 2u);
  EXPECT_GT(progress, 0u);
  EXPECT_NE(out.str().find("\"label\":\"Desk \\\"A\\\"\\tcaf\\u00e9\\ufffd\""), std::string::npos) << out.str();
  EXPECT_EQ(out.str().find("\tInstallation finished"), std::string::npos);
  // The versions sent, one per file.
  EXPECT_NE(out.str().find("\"files\":[\"system-6.41.npk\"],\"versions\":[\"6.41\"]"), std::string::npos) << out.str();
}

}  // namespace
}  // namespace tarnlift
