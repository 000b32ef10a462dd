#include "install/discovery.h"

#include <gtest/gtest.h>

#include "fake_transport.h"
#include "install/desk.h"
#include "install/session.h"
#include "packages/package_sets.h"

namespace tarnlift {
namespace {

using namespace install;

using testing::FakeTransport;
using testing::kRouterMac;

std::string announcement(const std::string& arch, const std::string& branding = "yes",
                         const std::string& storage = "1000") {
  return "DSCV\nx\ny\nMyRouter\n" + arch + "\n6.40\n6.41rc2\n" + branding + "\n" + storage + "\n";
}

AnnouncementKind parse(const std::string& payload, RouterRecord& record) {
  return parseAnnouncement(kRouterMac, reinterpret_cast<const uint8_t*>(payload.data()), payload.size(), 42, record);
}

TEST(Announcement, FieldsAreRead) {
  RouterRecord r;
  ASSERT_EQ(parse(announcement("mipsel"), r), AnnouncementKind::Discover);
  EXPECT_EQ(r.kind, kKindRouter);
  EXPECT_EQ(r.status, kStatusReady);
  EXPECT_EQ(r.label, "MyRouter");
  EXPECT_EQ(r.architecture, 2u);
  EXPECT_EQ(r.minVersion, 0x06286600u);
  EXPECT_EQ(r.version, 0x06296302u);
  EXPECT_TRUE(r.hasBranding);
  EXPECT_TRUE(r.keepBranding);
  EXPECT_TRUE(r.unprotected);
  EXPECT_EQ(r.storageSize, 1000u);
  EXPECT_EQ(r.lastSeen, 42);
  EXPECT_EQ(r.mac, kRouterMac);
}

TEST(Announcement, ArchitectureTextsMatchExactly) {
  RouterRecord r;
  EXPECT_EQ(parse(announcement("arm64"), r), AnnouncementKind::Discover);
  EXPECT_EQ(r.architecture, 7u);
  EXPECT_EQ(parse(announcement("arm"), r), AnnouncementKind::Discover);
  EXPECT_EQ(r.architecture, 6u);
  EXPECT_EQ(parse(announcement("ARM"), r), AnnouncementKind::Dropped);
  EXPECT_EQ(parse(announcement("arm "), r), AnnouncementKind::Dropped);
  const char* names[] = {"i386", "mipsel", "powerpc", "mips", "tile", "arm", "arm64", "smips", "mmips"};
  for (uint32_t code = 1; code <= 9; ++code) {
    EXPECT_EQ(architectureFromText(names[code - 1]), code);
    EXPECT_STREQ(architectureText(code), names[code - 1]);
  }
}

TEST(Announcement, BrandingStates) {
  RouterRecord r;
  parse(announcement("arm", "no"), r);
  EXPECT_FALSE(r.keepBranding);
  EXPECT_FALSE(r.hasBranding);
  EXPECT_TRUE(r.unprotected);
  parse(announcement("arm", "protected"), r);
  EXPECT_TRUE(r.keepBranding);
  EXPECT_FALSE(r.hasBranding);
  EXPECT_FALSE(r.unprotected);
}

TEST(Announcement, MissingFieldsAreEmptyAndOtherTagsAreOther) {
  RouterRecord r;
  EXPECT_EQ(parse("DSCV\n\n\nL\ntile", r), AnnouncementKind::Discover);
  EXPECT_EQ(r.label, "L");
  EXPECT_EQ(r.minVersion, 0u);
  EXPECT_EQ(r.storageSize, 0u);
  EXPECT_EQ(parse("DSCV", r), AnnouncementKind::Dropped);
  EXPECT_EQ(parse("RETR", r), AnnouncementKind::Other);
  EXPECT_EQ(parse("", r), AnnouncementKind::Other);
}

TEST(RouterTableModel, ColumnsOfANewRow) {
  RouterTable table;
  RouterRecord r;
  r.mac = kRouterMac;
  r.label = "R1";
  r.architecture = 1;
  EXPECT_TRUE(table.addRouter(r, 0));
  RouterRow* row = table.find(kRouterMac);
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(row->labelCell, "R1");
  EXPECT_EQ(row->macCell, "4C:5E:0C:01:02:03");
  EXPECT_EQ(row->statusCell, "Ready");
  EXPECT_EQ(row->architectureCell, "");  // i386 is left blank on purpose
  EXPECT_EQ(row->image, 0);
  r.mac[5] = 9;
  r.architecture = 2;
  table.addRouter(r, 0);
  EXPECT_EQ(table.find(r.mac)->architectureCell, "mipsle");
}

TEST(RouterTableModel, AnnouncingEverySecondKeepsOneReadyRow) {
  RouterTable table;
  RouterRecord r;
  r.mac = kRouterMac;
  for (int64_t second = 0; second < 100; ++second) {
    table.addRouter(r, second * 1'000'000);
    EXPECT_EQ(table.expire(second * 1'000'000), 0u);
  }
  EXPECT_EQ(table.size(), 1u);
  EXPECT_EQ(table.find(kRouterMac)->record.lastSeen, 99'000'000);
  EXPECT_EQ(table.find(kRouterMac)->statusCell, "Ready");
}

TEST(RouterTableModel, SilentReadyRouterExpiresAfterSixtySeconds) {
  RouterTable table;
  RouterRecord r;
  r.mac = kRouterMac;
  r.lastSeen = 1'000'000;
  table.addRouter(r, 1'000'000);
  EXPECT_EQ(table.expire(61'000'000), 0u);
  EXPECT_EQ(table.expire(61'000'001), 1u);
  EXPECT_EQ(table.size(), 0u);
}

TEST(RouterTableModel, InstallingRowsAndDrivesNeverExpire) {
  RouterTable table;
  RouterRecord r;
  r.mac = kRouterMac;
  table.addRouter(r, 0);
  table.setStatus(kRouterMac, kStatusInstalling, 10, 1, "x");
  RouterRecord drive;
  drive.kind = kKindDrive;
  drive.mac = {0, 0, 0, 0, 0, 1};
  drive.driveType = 3;
  table.addDrive(drive);
  EXPECT_EQ(table.expire(1'000'000'000), 0u);
  EXPECT_EQ(table.find(drive.mac)->macCell, "Hard disk");
  EXPECT_EQ(table.find(drive.mac)->image, 3);
  drive.mac[5] = 2;
  drive.driveType = 2;
  table.addDrive(drive);
  EXPECT_EQ(table.find(drive.mac)->macCell, "Removable media");
  EXPECT_EQ(table.find(drive.mac)->image, 4);
}

TEST(RouterTableModel, ADriveRowKeepsItsRootAsLabelAndShowsTheSizeInTheLastColumn) {
  // The whole description does not fit a cell: the label stays the root as
  // the platform lists it, and the size alone tells the disks apart.
  RouterTable table;
  RouterRecord drive;
  drive.kind = kKindDrive;
  drive.mac = {0, 0, 0, 0, 0, 'F'};
  drive.driveType = 2;
  drive.label = "F:\\";
  drive.driveDescription = "disk 2, 16.0 GB, SanDisk Cruzer Blade";
  drive.driveSize = "16.0 GB";
  table.addDrive(drive);
  EXPECT_EQ(table.find(drive.mac)->labelCell, "F:\\");
  EXPECT_EQ(table.find(drive.mac)->architectureCell, "16.0 GB");
}

TEST(RouterTableModel, StatusChangesCellAndImage) {
  RouterTable table;
  RouterRecord r;
  r.mac = kRouterMac;
  table.addRouter(r, 0);
  table.setStatus(kRouterMac, kStatusWaitingReboot, 100, 50, "Done");
  EXPECT_EQ(table.find(kRouterMac)->statusCell, "Waiting reboot");
  table.setStatus(kRouterMac, kStatusDone, 100, 100, "Installation finished successfully");
  EXPECT_EQ(table.find(kRouterMac)->statusCell, "Done");
  EXPECT_EQ(table.find(kRouterMac)->image, 1);
  EXPECT_EQ(table.find(kRouterMac)->record.progress, 100u);
  table.setStatus(kRouterMac, kStatusFailed, 100, 0, "Installation failed: x");
  EXPECT_EQ(table.find(kRouterMac)->image, 2);
  EXPECT_EQ(table.find(kRouterMac)->record.statusText, "Installation failed: x");
}

TEST(RouterTableModel, FreshAnnouncementReplacesFinishedRowButNotRecentInstalling) {
  RouterTable table;
  RouterRecord r;
  r.mac = kRouterMac;
  r.lastSeen = 0;
  table.addRouter(r, 0);
  table.setStatus(kRouterMac, kStatusInstalling, 0, 0, "");
  r.lastSeen = 5'000'000;
  EXPECT_FALSE(table.addRouter(r, 5'000'000));
  EXPECT_EQ(table.find(kRouterMac)->record.status, kStatusInstalling);
  r.lastSeen = 11'000'000;
  EXPECT_TRUE(table.addRouter(r, 11'000'000));
  EXPECT_EQ(table.find(kRouterMac)->record.status, kStatusReady);
}

TEST(RouterTableModel, SelectedRow) {
  RouterTable table;
  EXPECT_EQ(table.selected(), nullptr);
  RouterRecord r;
  r.mac = kRouterMac;
  table.addRouter(r, 0);
  table.select(kRouterMac);
  ASSERT_NE(table.selected(), nullptr);
  EXPECT_EQ(table.selected()->record.mac, kRouterMac);
}

class DiscoveryTest : public ::testing::Test {
 protected:
  FakeTransport transport;
  app::ManualClock clock{10'000'000};
  InstallServer server{transport, clock, [](const RouterRecord&, std::string&) { return std::string(); }};
  testing::ScriptedRouter router;

  void announce(const std::string& payload) {
    transport.incoming.push_back(router.announce(payload));
    server.pollOnce();
  }
};

TEST_F(DiscoveryTest, AnnouncementQueuesRecordAndSignals) {
  EXPECT_FALSE(server.discovered().event().waitFor(0));
  announce(announcement("arm64"));
  EXPECT_TRUE(server.discovered().event().waitFor(0));
  RouterRecord r;
  ASSERT_TRUE(server.discovered().pop(r));
  EXPECT_EQ(r.architecture, 7u);
  EXPECT_EQ(r.lastSeen, 10'000'000);
  EXPECT_FALSE(server.discovered().pop(r));
  EXPECT_FALSE(server.discovered().event().waitFor(0));
}

TEST_F(DiscoveryTest, UnknownArchitectureAndOtherTagsAreIgnored) {
  announce(announcement("ARM"));
  announce("HELO\n");
  EXPECT_EQ(server.discovered().size(), 0u);
}

TEST_F(DiscoveryTest, ReannounceWithinFiveSecondsKeepsSessionAfterSixDiscards) {
  announce(announcement("arm"));
  RouterRecord r;
  ASSERT_TRUE(server.discovered().pop(r));
  r.defaultConfig = true;
  server.start(r, true);
  clock.advanceMillis(3000);
  announce(announcement("arm"));
  EXPECT_EQ(server.sessionCount(), 1u);
  EXPECT_EQ(server.discovered().size(), 0u);
  clock.advanceMillis(3000);  // 6 s after it was seen
  announce(announcement("arm"));
  EXPECT_EQ(server.sessionCount(), 0u);
  EXPECT_EQ(server.discovered().size(), 0u);
  announce(announcement("arm"));
  EXPECT_EQ(server.discovered().size(), 1u);
  RouterTable table;
  ASSERT_TRUE(server.discovered().pop(r));
  table.addRouter(r, static_cast<int64_t>(clock.nowMicros()));
  EXPECT_EQ(table.find(kRouterMac)->statusCell, "Ready");
}

// The same through the path both front ends take: the real table behind the
// desk, ticked every 250 ms, a router announcing every second. The row shows
// "Installing" while the offer is out; the announcement 6 s after the offer
// discards the session, and the next one makes the row "Ready" again, long
// before the row's 10 s guard would let a fresh record replace it.
TEST_F(DiscoveryTest, ThroughTheDeskTheRowIsReadyAgainSoonAfterSixSeconds) {
  ServerRouterInstaller routers(server);
  NoDriveInstaller drives;
  packages::PackageSets sets;
  RememberedChoices remembered;
  InstallDesk desk(routers, drives, sets, remembered, clock);
  int elapsedMs = 0;
  auto runFor = [&](int milliseconds) {
    for (int t = 0; t < milliseconds; t += 250) {
      clock.advanceMillis(250);
      elapsedMs += 250;
      if (elapsedMs % 1000 == 0) announce(announcement("arm"));
      desk.tick();
    }
  };
  announce(announcement("arm"));
  desk.tick();
  ASSERT_NE(desk.table().find(kRouterMac), nullptr);
  EXPECT_EQ(desk.table().find(kRouterMac)->statusCell, "Ready");
  RouterRecord request = desk.table().find(kRouterMac)->record;
  request.defaultConfig = true;
  // As the front ends do after the Install command started the session.
  routers.start(request, true);
  SessionStatus started = routers.status(kRouterMac);
  desk.table().setStatus(kRouterMac, started.status, 0, started.progress, started.statusText);
  runFor(250);
  EXPECT_EQ(desk.table().find(kRouterMac)->statusCell, "Installing");
  runFor(3000 - 250);  // the announcement 3 s after the offer
  EXPECT_EQ(server.sessionCount(), 1u);
  EXPECT_EQ(desk.table().find(kRouterMac)->statusCell, "Installing");
  runFor(3000);  // ... and the one 6 s after it
  EXPECT_EQ(server.sessionCount(), 0u);
  runFor(1250);  // the next announcement, 7 s after the offer
  ASSERT_EQ(desk.table().rows().size(), 1u);
  const RouterRow* row = desk.table().find(kRouterMac);
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(row->record.status, kStatusReady);
  EXPECT_EQ(row->statusCell, "Ready");
  EXPECT_EQ(row->image, 0);
}

TEST_F(DiscoveryTest, FinishedSessionIsReplacedAtOnce) {
  RouterRecord r;
  r.mac = kRouterMac;
  r.lastSeen = static_cast<int64_t>(clock.nowMicros());
  server.start(r, false);
  announce(announcement("arm"));
  EXPECT_EQ(server.sessionCount(), 0u);
}

TEST_F(DiscoveryTest, OtherBroadcastEndsExistingSession) {
  RouterRecord r;
  r.mac = kRouterMac;
  r.defaultConfig = true;
  r.lastSeen = static_cast<int64_t>(clock.nowMicros());
  server.start(r, true);
  announce("HELO\n");
  EXPECT_EQ(server.sessionCount(), 0u);
}

}  // namespace
}  // namespace tarnlift
