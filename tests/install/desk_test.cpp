// The desk both front ends share, on its own.
#include "install/desk.h"

#include <gtest/gtest.h>

#include "install/install_datagram.h"
#include "tests/install/fake_desk_workers.h"

namespace tarnlift {
namespace {

using namespace install;

using tarnlift::testing::FakeDriveInstaller;
using tarnlift::testing::FakeRouterInstaller;

class DeskTest : public ::testing::Test {
 protected:
  FakeRouterInstaller routers;
  FakeDriveInstaller drives;
  packages::PackageSets sets;
  RememberedChoices remembered;
  app::ManualClock clock{50'000'000};
  InstallDesk desk{routers, drives, sets, remembered, clock};

  RouterRecord router(uint8_t last) {
    RouterRecord r;
    r.mac = {0x02, 0, 0, 0, 0, last};
    r.label = "R";
    r.architecture = 6;
    r.lastSeen = static_cast<int64_t>(clock.nowMicros());
    return r;
  }
  // Rows for the routers, each installing, with a session that waits for
  // its reboot: the next tick brings that news.
  void waitingForReboot(std::initializer_list<uint8_t> lasts) {
    for (uint8_t last : lasts) routers.discovered.push_back(router(last));
    desk.tick();
    for (uint8_t last : lasts) {
      desk.table().setStatus(router(last).mac, kStatusInstalling, 100, 0, "");
      routers.sessions[router(last).mac] = {kStatusWaitingReboot, 100, 100, "Done"};
    }
  }
};

TEST_F(DeskTest, DrainedRoutersGetPreviousInstallAndTheRememberedDefaults) {
  sets.rememberPreviousInstall({"", "/prev", {"a.npk"}});
  remembered.gateway = parseDottedAddress("10.0.0.1");
  remembered.keepConfig = true;
  routers.discovered = {router(1), router(2), router(1)};
  InstallDesk::TickResult result = desk.tick();
  EXPECT_EQ(result.added.size(), 2u);
  EXPECT_TRUE(result.tableChanged);
  const RouterRecord& r = desk.table().find(router(1).mac)->record;
  EXPECT_EQ(r.setName, "Previous Install");
  EXPECT_EQ(r.packageDir, "/prev");
  EXPECT_EQ(r.files, std::vector<std::string>{"a.npk"});
  EXPECT_EQ(r.gateway, parseDottedAddress("10.0.0.1"));
  EXPECT_TRUE(r.keepConfig);
  EXPECT_FALSE(desk.tick().tableChanged);
}

TEST_F(DeskTest, WithoutPreviousInstallANewRouterStartsInTheDesksFolder) {
  desk.setPackageDir("/packages");
  routers.discovered = {router(1)};
  desk.tick();
  EXPECT_EQ(desk.table().find(router(1).mac)->record.packageDir, "/packages");
  EXPECT_EQ(desk.table().find(router(1).mac)->record.setName, "");
}

TEST_F(DeskTest, AgeingRemovesSilentReadyRoutersOnly) {
  routers.discovered = {router(1), router(2)};
  desk.tick();
  desk.table().setStatus(router(2).mac, kStatusInstalling, 0, 0, "");
  routers.sessions[router(2).mac] = {kStatusInstalling, 0, 0, ""};
  clock.advanceMicros(60'000'001);
  InstallDesk::TickResult result = desk.tick();
  EXPECT_TRUE(result.tableChanged);
  EXPECT_EQ(desk.table().find(router(1).mac), nullptr);
  EXPECT_NE(desk.table().find(router(2).mac), nullptr);
}

TEST_F(DeskTest, PollStoresNewsAndHandsStatusZeroForAGoneSession) {
  routers.discovered = {router(1), router(2)};
  desk.tick();
  desk.table().setStatus(router(1).mac, kStatusInstalling, 100, 0, "Sending offer...");
  desk.table().setStatus(router(2).mac, kStatusInstalling, 100, 0, "Sending offer...");
  routers.sessions[router(1).mac] = {kStatusWaitingReboot, 100, 100, "Done"};
  std::vector<DeskNews> news = desk.poll();
  ASSERT_EQ(news.size(), 2u);
  EXPECT_TRUE(news[0].hadNews);
  EXPECT_EQ(news[0].previousStatus, kStatusInstalling);
  EXPECT_EQ(news[0].previousText, "Sending offer...");
  EXPECT_EQ(news[0].status.status, kStatusWaitingReboot);
  EXPECT_EQ(desk.table().find(router(1).mac)->statusCell, "Waiting reboot");
  EXPECT_TRUE(news[1].hadNews);
  EXPECT_EQ(news[1].status.status, kStatusNone);
  ASSERT_NE(desk.table().find(router(2).mac), nullptr);
  EXPECT_EQ(desk.table().find(router(2).mac)->record.status, kStatusNone);
  // Rows that are not busy are not asked.
  EXPECT_EQ(desk.poll().size(), 1u);
}

TEST_F(DeskTest, ADriveWithoutInstallationHasNoNewsAndIsRemovedFromTheInstaller) {
  RouterRecord d;
  d.kind = kKindDrive;
  d.mac = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 'E'};
  drives.drives = {d};
  remembered.baudRate = 9600;
  EXPECT_EQ(desk.addDrives(), 1u);
  EXPECT_EQ(desk.table().find(d.mac)->record.baudRate, 9600u);
  EXPECT_TRUE(InstallDesk::isDriveMac(d.mac));
  EXPECT_FALSE(InstallDesk::isDriveMac(router(1).mac));
  desk.table().setStatus(d.mac, kStatusInstalling, 0, 0, "");
  std::vector<DeskNews> news = desk.poll();
  ASSERT_EQ(news.size(), 1u);
  EXPECT_FALSE(news[0].hadNews);
  EXPECT_TRUE(news[0].isDrive);
  EXPECT_EQ(drives.cancelled.size(), 1u);
  drives.installs[d.mac] = {kStatusDone, 10, 10, "Installation completed"};
  news = desk.poll();
  EXPECT_TRUE(news[0].hadNews);
  EXPECT_EQ(desk.table().find(d.mac)->record.statusText, "Installation completed");
}

TEST_F(DeskTest, AfterInstallRebootsShutsDownOrLeavesAlone) {
  desk.actAfterInstall(router(1).mac, AfterInstall::Reboot);
  desk.actAfterInstall(router(1).mac, AfterInstall::Shutdown);
  desk.actAfterInstall(router(1).mac, AfterInstall::None);
  EXPECT_EQ(routers.calls, (std::vector<std::string>{"reboot", "shutdown"}));
}

TEST_F(DeskTest, TheTickSendsTheBeaconOnEveryFourthTickBeforeTheTableWork) {
  int sent = 0;
  size_t routersWhenSent = 99;
  desk.setBeacon([&] {
    ++sent;
    routersWhenSent = desk.table().rows().size();
  });
  routers.discovered = {router(1)};
  for (int i = 0; i < 3; ++i) desk.tick();
  EXPECT_EQ(sent, 0);
  routers.discovered = {router(2)};
  desk.tick();
  EXPECT_EQ(sent, 1);
  // Sent before this tick drained router 2.
  EXPECT_EQ(routersWhenSent, 1u);
  EXPECT_EQ(desk.table().rows().size(), 2u);
  for (int i = 0; i < 8; ++i) desk.tick();
  EXPECT_EQ(sent, 3);
}

// The window's moment (the default): when the router begins waiting for
// its reboot, whether or not it has confirmed anything.
TEST_F(DeskTest, TheAfterInstallActionIsTakenOnceWhenTheWaitBegins) {
  EXPECT_EQ(desk.afterInstallMoment(), AfterInstallMoment::WaitingReboot);
  waitingForReboot({1});
  InstallDesk::TickResult first = desk.tick();
  ASSERT_EQ(first.news.size(), 1u);
  EXPECT_TRUE(first.news[0].startedWaitingReboot());
  EXPECT_TRUE(desk.actAfterInstallOnce(first.news[0], AfterInstall::Reboot));
  InstallDesk::TickResult second = desk.tick();
  ASSERT_EQ(second.news.size(), 1u);
  EXPECT_FALSE(second.news[0].startedWaitingReboot());
  EXPECT_FALSE(desk.actAfterInstallOnce(second.news[0], AfterInstall::Reboot));
  EXPECT_EQ(routers.calls, (std::vector<std::string>{"reboot"}));
  // "None" never acts, not even when the wait begins.
  EXPECT_FALSE(desk.actAfterInstallOnce(first.news[0], AfterInstall::None));
  EXPECT_EQ(routers.calls.size(), 1u);
}

// `serve` and the web console: the action waits for the router's "WTRM"
// and is taken once; the session's success 3 s later does not repeat it.
TEST_F(DeskTest, AfterTheTransferIsConfirmedTheActionIsTakenOnceOnTheRoutersWtrm) {
  desk.setAfterInstallMoment(AfterInstallMoment::TransferConfirmed);
  waitingForReboot({1});
  InstallDesk::TickResult waiting = desk.tick();
  ASSERT_EQ(waiting.news.size(), 1u);
  EXPECT_TRUE(waiting.news[0].startedWaitingReboot());
  EXPECT_FALSE(desk.actAfterInstallOnce(waiting.news[0], AfterInstall::Reboot));
  EXPECT_FALSE(desk.actAfterInstallOnce(desk.tick().news[0], AfterInstall::Reboot));
  routers.sessions[router(1).mac].confirmed = true;
  InstallDesk::TickResult confirmed = desk.tick();
  EXPECT_TRUE(desk.table().find(router(1).mac)->confirmed);
  ASSERT_EQ(confirmed.news.size(), 1u);
  EXPECT_TRUE(desk.actAfterInstallOnce(confirmed.news[0], AfterInstall::Reboot));
  EXPECT_FALSE(desk.actAfterInstallOnce(desk.tick().news[0], AfterInstall::Reboot));
  routers.sessions[router(1).mac] = {kStatusDone, 100, 100, "Installation finished successfully", true};
  EXPECT_FALSE(desk.actAfterInstallOnce(desk.tick().news[0], AfterInstall::Reboot));
  EXPECT_EQ(routers.calls, (std::vector<std::string>{"reboot"}));
}

// Without "WTRM" the action comes with the session's success after its
// wait (30 s after "FILE\n"); a failure never brings it.
TEST_F(DeskTest, AfterTheTransferIsConfirmedWithoutWtrmTheActionComesWithTheSuccess) {
  desk.setAfterInstallMoment(AfterInstallMoment::TransferConfirmed);
  waitingForReboot({1, 2});
  for (const DeskNews& n : desk.tick().news) EXPECT_FALSE(desk.actAfterInstallOnce(n, AfterInstall::Shutdown));
  routers.sessions[router(1).mac] = {kStatusDone, 100, 100, "Installation finished successfully"};
  routers.sessions[router(2).mac] = {kStatusFailed, 100, 0, "Installation failed: bad router response"};
  std::vector<bool> acted;
  for (const DeskNews& n : desk.tick().news) acted.push_back(desk.actAfterInstallOnce(n, AfterInstall::Shutdown));
  EXPECT_EQ(acted, (std::vector<bool>{true, false}));
  EXPECT_EQ(routers.calls, (std::vector<std::string>{"shutdown"}));
  EXPECT_FALSE(desk.table().find(router(1).mac)->confirmed);
}

TEST_F(DeskTest, AStartedRowShowsItsSessionsFirstStatusAtOnce) {
  routers.discovered = {router(1)};
  desk.tick();
  desk.table().setStatus(router(1).mac, kStatusReady, 300, 0, "");
  routers.sessions[router(1).mac] = {kStatusInstalling, 0, 0, "Sending offer..."};
  desk.showFirstStatus(router(1).mac);
  const RouterRecord& r = desk.table().find(router(1).mac)->record;
  EXPECT_EQ(r.status, kStatusInstalling);
  EXPECT_EQ(r.statusText, "Sending offer...");
  // A session that does not know the size yet keeps the row's.
  EXPECT_EQ(r.totalSize, 300u);
  // A drive whose thread has not reported yet shows "Installing".
  RouterRecord d;
  d.mac = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x43};
  d.kind = kKindDrive;
  desk.table().addDrive(d);
  desk.showFirstStatus(d.mac);
  EXPECT_EQ(desk.table().find(d.mac)->record.status, kStatusInstalling);
  // An unknown row: nothing happens.
  desk.showFirstStatus({0x02, 9, 9, 9, 9, 9});
  EXPECT_EQ(desk.table().rows().size(), 2u);
}

}  // namespace
}  // namespace tarnlift
