// serve's run with simulated routers in memory: the loop, the hang-up, the
// end and what is saved, in seconds of test time.
#include "install/serve_service.h"

#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <sstream>

#include "tests/app/capture_log.h"
#include "tests/install/sim_segment.h"
#include "tests/install/temp_dir.h"
#include "tests/install/two_packages.h"
#include "tools/routersim/sim_router.h"

namespace tarnlift {
namespace {

using namespace install;

using routersim::SimRouter;
using routersim::SimRouterConfig;

// Counts its calls, and checks that each comes with the desk lock held
// (another thread cannot take it).
class RecordingCompanion : public DeskCompanion {
 public:
  std::mutex& deskLock() override { return lock; }
  void rereadPackages() override {
    ++rereads;
    if (!heldNow()) ++unlockedCalls;
  }
  void afterTick() override {
    ++ticks;
    if (!heldNow()) ++unlockedCalls;
  }
  std::mutex lock;
  int rereads = 0;
  int ticks = 0;
  int unlockedCalls = 0;

 private:
  bool heldNow() {
    return !std::async(std::launch::async, [this] {
              if (!lock.try_lock()) return false;
              lock.unlock();
              return true;
            }).get();
  }
};

class ServeServiceTest : public ::testing::Test {
 protected:
  testing::CapturedLog log;
  testing::TempDir dir;
  app::ManualClock clock{1'000'000};
  testing::Segment segment{clock};
  InstallServer server{segment, clock};
  packages::PackageSets sets;
  app::Registry settings;
  std::ostringstream out, err;
  std::vector<std::unique_ptr<SimRouter>> sims;
  HeadlessOptions options;
  ServeRunOptions runOptions;
  std::unique_ptr<ServeService> serve;
  int waits = 0;

  void SetUp() override {
    testing::writeSystemAndExtra(dir, 5000);
    settings.openRoot(app::kSettingsKeyPath, app::kFullAccess, app::makeMemorySettingsStore());
    options.packageDir = dir.path();
    options.select = {"system-6.41.npk"};
  }
  static SimRouterConfig router(uint8_t last) {
    SimRouterConfig c;
    c.mac = {0x02, 0, 0, 0, 0, last};
    c.repeatMs = 100;
    return c;
  }
  void addRouter(SimRouterConfig config) {
    sims.push_back(
        std::make_unique<SimRouter>(config, [this](const uint8_t* d, size_t n) { segment.fromRouter(d, n); }));
  }
  // prepare() and the installer, as serve does before its loop.
  void start() {
    serve = std::make_unique<ServeService>(options, sets, settings, runOptions);
    std::string error;
    bool usage = false;
    ASSERT_TRUE(serve->prepare(error, usage)) << error;
    serve->startInstaller(server, clock, out, err);
  }
  // The 250 ms between ticks: the server and the routers run meanwhile.
  void wait() {
    ++waits;
    for (int ms = 0; ms < 250; ++ms) {
      clock.advanceMillis(1);
      testing::passMillisecond(segment, server, sims, static_cast<int64_t>(clock.nowMicros() / 1000));
    }
  }
  // Stops after `ticks` waits at the latest (a test that never ends fails).
  ServeHooks hooksStoppingAfter(int ticks, std::function<bool()> reload = nullptr) {
    return {[this, ticks] { return waits >= ticks; }, std::move(reload), [this] { wait(); }};
  }
  std::string refusal(ServeRunOptions run, bool& usage) {
    HeadlessOptions o = options;
    ServeService s(o, sets, settings, std::move(run));
    std::string error;
    EXPECT_FALSE(s.prepare(error, usage));
    return error;
  }
};

TEST_F(ServeServiceTest, ACountedRunEndsOnceItsRoutersFinishedAndSavesWhatItRemembers) {
  addRouter(router(1));
  runOptions.count = 1;
  runOptions.poolText = "10.0.0.10-10.0.0.20/24";
  runOptions.resultsFile = dir.file("results.jsonl");
  start();
  EXPECT_FALSE(serve->run(hooksStoppingAfter(400), nullptr));
  EXPECT_LT(waits, 400);
  EXPECT_EQ(serve->installer().succeeded(), 1u);
  EXPECT_TRUE(serve->finish(false));
  std::ifstream results(runOptions.resultsFile);
  std::string line;
  ASSERT_TRUE(std::getline(results, line));
  EXPECT_NE(line.find("\"address\":\"10.0.0.10/24\""), std::string::npos) << line;
  EXPECT_NE(settings.readString(ServeService::kPoolSettingsValue, "").find("02:00:00:00:00:01"), std::string::npos);
  EXPECT_EQ(settings.readInt("Previous NetMask", 0), 24u);
  packages::PackageSets saved;
  saved.loadSets(settings);
  EXPECT_TRUE(saved.contains(packages::kPreviousInstallSet));
  EXPECT_TRUE(log.contains("serve: 1 installed, 0 failed"));
}

TEST_F(ServeServiceTest, NoSaveLeavesTheSettingsAsTheyWere) {
  addRouter(router(1));
  runOptions.count = 1;
  runOptions.poolText = "10.0.0.10-10.0.0.20/24";
  runOptions.noSave = true;
  start();
  EXPECT_FALSE(serve->run(hooksStoppingAfter(400), nullptr));
  EXPECT_TRUE(serve->finish(false));
  EXPECT_EQ(settings.readString(ServeService::kPoolSettingsValue, ""), "");
  EXPECT_EQ(settings.readInt("Previous NetMask", 0), 0u);
}

TEST_F(ServeServiceTest, AFailureMakesACountedRunUnclean) {
  SimRouterConfig old = router(1);
  old.minVersion = "6.45";
  old.version = "6.30";
  addRouter(old);
  runOptions.count = 1;
  start();
  EXPECT_FALSE(serve->run(hooksStoppingAfter(40), nullptr));
  EXPECT_EQ(serve->installer().failed(), 1u);
  EXPECT_FALSE(serve->finish(false));
  EXPECT_TRUE(log.contains("serve: 0 installed, 1 failed"));
}

// Told to stop, the server did what it was told, whatever failed before.
TEST_F(ServeServiceTest, AStopRequestEndsCleanlyAfterAFailure) {
  SimRouterConfig old = router(1);
  old.minVersion = "6.45";
  old.version = "6.30";
  addRouter(old);
  start();
  ServeHooks hooks{[this] { return serve->installer().failed() >= 1 || waits >= 40; }, nullptr, [this] { wait(); }};
  EXPECT_TRUE(serve->run(hooks, nullptr));
  EXPECT_EQ(serve->installer().failed(), 1u);
  EXPECT_TRUE(serve->finish(true));
}

TEST_F(ServeServiceTest, AHangUpRereadsTheInventoryAndABadOneKeepsThePrevious) {
  const std::string file = dir.write("fleet.ini", "[02:00:00:00:00:01]\n");
  options.onlyKnown = true;
  runOptions.inventoryFile = file;
  start();
  EXPECT_TRUE(log.contains("serve: inventory " + file + " lists 1 routers"));
  EXPECT_TRUE(serve->knows(router(1).mac));
  EXPECT_FALSE(serve->knows(router(2).mac));

  dir.write("fleet.ini", "[02:00:00:00:00:02]\n");
  RecordingCompanion companion;
  int asked = 0;
  EXPECT_TRUE(serve->run(hooksStoppingAfter(4, [&asked] { return ++asked == 2; }), &companion));
  EXPECT_TRUE(log.contains("serve: hang-up: inventory " + file + " re-read: 1 routers"));
  EXPECT_FALSE(serve->knows(router(1).mac));
  EXPECT_TRUE(serve->knows(router(2).mac));
  EXPECT_EQ(companion.rereads, 1);
  EXPECT_EQ(companion.ticks, 4);
  EXPECT_EQ(companion.unlockedCalls, 0);

  dir.write("fleet.ini", "[not a mac]\n");
  serve->reload(nullptr);
  EXPECT_TRUE(log.contains("serve: hang-up: inventory not re-read, the previous one stays"));
  EXPECT_TRUE(serve->knows(router(2).mac));
}

TEST_F(ServeServiceTest, TheRereadInventorysAddressesAreNotHandedOutFromThePool) {
  const std::string file = dir.write("fleet.ini", "[02:00:00:00:00:09]\n");
  runOptions.inventoryFile = file;
  runOptions.poolText = "10.0.0.10-10.0.0.11/24";
  runOptions.count = 1;
  start();
  dir.write("fleet.ini", "[02:00:00:00:00:09]\naddress = 10.0.0.10/24\n");
  serve->reload(nullptr);
  addRouter(router(1));
  EXPECT_FALSE(serve->run(hooksStoppingAfter(400), nullptr));
  EXPECT_TRUE(log.contains("router 02:00:00:00:00:01 gets 10.0.0.11/24 from the address pool")) << log.text();
}

TEST_F(ServeServiceTest, PrepareRefusesWhatTheCommandLineGotWrong) {
  bool usage = false;
  options.onlyKnown = true;
  EXPECT_EQ(refusal({}, usage), "--only-known needs --inventory FILE or --mac MAC");
  EXPECT_TRUE(usage);
  options.onlyKnown = false;
  ServeRunOptions both;
  both.poolText = "10.0.0.10-10.0.0.20/24";
  both.addressGiven = true;
  EXPECT_EQ(refusal(both, usage), "--address and --address-pool exclude each other");
  EXPECT_TRUE(usage);
  ServeRunOptions badInventory;
  badInventory.inventoryFile = dir.write("bad.ini", "[02:00:00:00:00:01]\nnonsense = 1\n");
  EXPECT_FALSE(refusal(badInventory, usage).empty());
  EXPECT_TRUE(usage);
  ServeRunOptions badResults;
  badResults.resultsFile = dir.file("no/such/folder/results.jsonl");
  EXPECT_FALSE(refusal(badResults, usage).empty());
  EXPECT_FALSE(usage);
}

}  // namespace
}  // namespace tarnlift
