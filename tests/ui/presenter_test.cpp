// The main window's rules, driven through a recording view and fake workers.
#include <gtest/gtest.h>

#include <algorithm>

#include "app/registry.h"
#include "app/version.h"
#include "install/install_datagram.h"
#include "netboot/interfaces.h"
#include "tests/ui/presenter_fixture.h"

namespace tarnlift::ui {
namespace {

using testing::FakeView;
using testing::FakeWorkers;
using testing::PresenterTest;
using testing::announced;
using testing::drive;
using testing::macOf;
using Names = std::vector<std::string>;

// ---- construction ----------------------------------------------------------

TEST_F(PresenterTest, ConstructionCreatesTheWorkersFirstInTheirOrder) {
  app::StartupOptions options;
  options.kernelOverride = "C:\\kernel.bin";
  start(options);
  EXPECT_EQ(workers.order, (Names{"Router installer", "local-drive installer", "PXE Booter"}));
  EXPECT_EQ(workers.kernelOverride, "C:\\kernel.bin");
}

TEST_F(PresenterTest, ConstructionStepsRunInOrder) {
  start();
  EXPECT_EQ(view.calls, (Names{"title", "icon", "timer", "status bar", "clip", "move", "show"}));
  EXPECT_EQ(view.title, std::string("Quenlark Tarnlift for Brisvane v") + app::kVersionWords);
  EXPECT_EQ(view.timerMillis, 250u);
  EXPECT_EQ(view.progressMax, 100);
  EXPECT_EQ(view.items[kIdBaud], (Names{"don't set", "110", "300", "1200", "2400", "4800", "9600", "19200", "38400",
                                        "57600", "115200"}));
  EXPECT_EQ(view.items[kIdAutoReboot], (Names{"Reboot after installation", "Shutdown after installation", "None"}));
  EXPECT_EQ(view.selectedText(kIdAutoReboot), "Reboot after installation");
}

TEST_F(PresenterTest, SizeLimitsAreTheInitialSizeAndWidth) {
  view.rect = {0, 0, 690, 470};
  start();
  TrackingLimits limits = presenter->trackingLimits();
  EXPECT_EQ(limits.minWidth, 690);
  EXPECT_EQ(limits.minHeight, 470);
  EXPECT_EQ(limits.maxWidth, 690);
}

TEST_F(PresenterTest, FirstStartWithoutKeyOpensAt20x20WithInitialHeightInTheCurrentDirectory) {
  view.rect = {0, 0, 690, 470};
  start();
  EXPECT_EQ(view.moved.left, 20);
  EXPECT_EQ(view.moved.top, 20);
  EXPECT_EQ(view.moved.width(), 690);
  EXPECT_EQ(view.moved.height(), 470);
  EXPECT_EQ(view.texts[kIdPackageDir], "/work/cwd");
  EXPECT_EQ(presenter->catalogue().folder(), "/work/cwd");
}

TEST_F(PresenterTest, PlacementFromALargerScreenIsPulledOntoTheSmallerOne) {
  settings().writeInt("Rect X", 1500);
  settings().writeInt("Rect Y", 900);
  settings().writeInt("Rect H", 800);
  settings().writeInt("Screen X", 1920);
  settings().writeInt("Screen Y", 1200);
  view.rect = {0, 0, 700, 460};
  view.screen = {1024, 768};
  start();
  EXPECT_EQ(view.moved.height(), 768);
  EXPECT_EQ(view.moved.top, 0);
  EXPECT_EQ(view.moved.left, 1024 - 700);
  EXPECT_EQ(view.moved.width(), 700);
  EXPECT_LE(view.moved.right, 1024);
  EXPECT_LE(view.moved.bottom, 768);
}

TEST_F(PresenterTest, PlacementOnTheSameScreenIsKeptAndTheWidthIsAlwaysTheInitial) {
  settings().writeInt("Rect X", 300);
  settings().writeInt("Rect Y", 100);
  settings().writeInt("Rect H", 600);
  settings().writeInt("Screen X", 1024);
  settings().writeInt("Screen Y", 768);
  view.rect = {0, 0, 700, 460};
  start();
  EXPECT_EQ(view.moved.left, 300);
  EXPECT_EQ(view.moved.top, 100);
  EXPECT_EQ(view.moved.height(), 600);
  EXPECT_EQ(view.moved.width(), 700);
}

TEST_F(PresenterTest, SettingsAreReadInTheirOrder) {
  settings().writeMultiString("x", {});  // no effect; the key exists
  {
    app::Registry sets;
    sets.openSubKey(settings(), "Package Sets");
    sets.writeMultiString("Lab", {"C:\\pk", "a.npk"});
  }
  store->log().clear();
  start();
  EXPECT_EQ(reads(), (Names{"Rect X", "Rect Y", "Rect H", "Screen X", "Screen Y", "PXE Enabled", "PXE Client Address",
                            "Lab", "Previous KeepConfig", "Previous Address", "Previous Netmask", "Previous Gateway",
                            "Previous Baud", "Previous Default Config", "Previous Script", "Previous ScriptFile",
                            "Previous ModeScript", "Previous ModeScriptFile", "Force Inst", "Package Path"}));
  EXPECT_EQ(view.items[kIdSets], Names{"Lab"});
}

TEST_F(PresenterTest, CurrentDirectoryFlagSkipsTheSetsAndThePackagePath) {
  settings().writeString("Package Path", "/saved");
  {
    app::Registry sets;
    sets.openSubKey(settings(), "Package Sets");
    sets.writeMultiString("Lab", {"C:\\pk", "a.npk"});
  }
  store->log().clear();
  app::StartupOptions options;
  options.currentDirectory = true;
  start(options);
  Names r = reads();
  EXPECT_EQ(std::count(r.begin(), r.end(), "Package Path"), 0);
  EXPECT_EQ(std::count(r.begin(), r.end(), "Lab"), 0);
  EXPECT_TRUE(view.items[kIdSets].empty());
  EXPECT_EQ(presenter->catalogue().folder(), "/work/cwd");
}

TEST_F(PresenterTest, SavedPackagePathIsTheStartFolder) {
  settings().writeString("Package Path", "/saved/packages");
  start();
  EXPECT_EQ(view.texts[kIdPackageDir], "/saved/packages");
  EXPECT_EQ(presenter->catalogue().folder(), "/saved/packages");
}

TEST_F(PresenterTest, SettingsAreWrittenInTheirOrderOnClose) {
  start();
  presenter->sets().rememberPreviousInstall({"", "/p", {"a.npk"}});
  store->log().clear();
  view.rect = {40, 50, 740, 550};
  presenter->onClose();
  EXPECT_EQ(writes(), (Names{"Rect X", "Rect Y", "Rect H", "Screen X", "Screen Y", "Package Path",
                             "Previous KeepConfig", "Previous Address", "Previous NetMask", "Previous Gateway",
                             "Previous Baud", "Previous Default Config", "Previous Script", "Previous ScriptFile",
                             "Previous ModeScript", "Previous ModeScriptFile", "Force Inst", "PXE Enabled",
                             "PXE Client Address", "Previous Install"}));
  EXPECT_TRUE(log.contains("wm_close\n"));
  EXPECT_TRUE(log.contains("l: 40, t: 50\n"));
  EXPECT_EQ(settings().readInt("Rect X", 0), 40u);
  EXPECT_EQ(settings().readInt("Rect Y", 0), 50u);
  EXPECT_EQ(settings().readInt("Rect H", 0), 500u);
  EXPECT_EQ(settings().readInt("Screen X", 0), 1024u);
  EXPECT_EQ(settings().readInt("Screen Y", 0), 768u);
}

TEST_F(PresenterTest, ClosingAMinimisedWindowKeepsThePreviousPlacement) {
  settings().writeInt("Rect X", 111);
  settings().writeInt("Rect Y", 222);
  settings().writeInt("Rect H", 333);
  start();
  store->log().clear();
  view.rect = {-32000, -32000, -31840, -31970};
  presenter->onClose();
  Names w = writes();
  EXPECT_EQ(std::count(w.begin(), w.end(), "Rect X"), 0);
  EXPECT_EQ(std::count(w.begin(), w.end(), "Rect H"), 0);
  EXPECT_EQ(w.front(), "Screen X");
  EXPECT_EQ(settings().readInt("Rect X", 0), 111u);
  EXPECT_EQ(settings().readInt("Rect Y", 0), 222u);
  EXPECT_EQ(settings().readInt("Rect H", 0), 333u);
}

TEST_F(PresenterTest, ClosingEndsWithExitCodeZeroEvenWhileAnInstallationRuns) {
  start();
  discover(announced(1));
  presenter->table().setStatus(macOf(1), install::kStatusInstalling, 0, 0, "");
  workers.routers.sessions[macOf(1)] = {install::kStatusInstalling, 100, 10, "Transferring: a.npk"};
  presenter->onClose();
  EXPECT_EQ(view.quitCode, 0);
  EXPECT_FALSE(view.timerRunning);
  // Nothing is waited for: the threads are left running.
  EXPECT_FALSE(workers.stopped);
  EXPECT_EQ(view.calls.back(), "quit");
}

TEST_F(PresenterTest, TearDownSavesThenFreesTheListsThenStopsTheThreads) {
  start();
  store->log().clear();
  bool stoppedWhenFreed = true;
  size_t writesWhenFreed = 0;
  view.onDestroyLists = [&] {
    stoppedWhenFreed = workers.stopped;
    writesWhenFreed = writes().size();
  };
  presenter->tearDown();
  EXPECT_TRUE(workers.stopped);
  EXPECT_FALSE(stoppedWhenFreed);
  // Every setting is written, in the close order, before the lists go.
  Names w = writes();
  EXPECT_EQ(w, (Names{"Rect X", "Rect Y", "Rect H", "Screen X", "Screen Y", "Package Path", "Previous KeepConfig",
                      "Previous Address", "Previous NetMask", "Previous Gateway", "Previous Baud",
                      "Previous Default Config", "Previous Script", "Previous ScriptFile", "Previous ModeScript",
                      "Previous ModeScriptFile", "Force Inst", "PXE Enabled", "PXE Client Address"}));
  EXPECT_EQ(writesWhenFreed, w.size());
  EXPECT_EQ(view.calls.back(), "destroy lists");
}

TEST_F(PresenterTest, NetmaskIsReadAndWrittenUnderEitherSpellingAsOneValue) {
  settings().writeInt("Previous NetMask", 24);
  start();
  EXPECT_EQ(presenter->remembered().netmaskBits, 24u);
  presenter->remembered().netmaskBits = 16;
  presenter->saveSettings();
  EXPECT_EQ(settings().readInt("Previous Netmask", 0), 16u);
}

TEST_F(PresenterTest, SettingsSurviveARestart) {
  start();
  presenter->remembered().address = install::parseDottedAddress("10.1.2.3");
  presenter->remembered().scriptPath = "C:\\s.rsc";
  view.netbootAnswer = true;
  view.netbootEnabledAnswer = true;
  view.netbootAddressAnswer = install::parseDottedAddress("192.168.88.7");
  click(kIdNetBooting);
  presenter->onClose();
  presenter.reset();
  FakeView second;
  FakeWorkers secondWorkers;
  MainPresenter again(second, secondWorkers, {}, store);
  again.construct();
  EXPECT_TRUE(again.netbootEnabled());
  EXPECT_EQ(again.clientAddress(), install::parseDottedAddress("192.168.88.7"));
  EXPECT_EQ(again.remembered().address, install::parseDottedAddress("10.1.2.3"));
  EXPECT_EQ(again.remembered().scriptPath, "C:\\s.rsc");
  EXPECT_EQ(secondWorkers.netboot.changes.size(), 1u);
}

// ---- beacon --------------------------------------------------------------

TEST_F(PresenterTest, ForceInstSwitchesTheBeaconOnWhichSendsOnEveryFourthTick) {
  settings().writeInt("Force Inst", 1);
  start();
  EXPECT_EQ(workers.beaconWorker.switches, std::vector<bool>{true});
  for (int i = 0; i < 3; ++i) presenter->onTimer();
  EXPECT_EQ(workers.beaconWorker.sent, 0);
  presenter->onTimer();
  EXPECT_EQ(workers.beaconWorker.sent, 1);
  for (int i = 0; i < 8; ++i) presenter->onTimer();
  EXPECT_EQ(workers.beaconWorker.sent, 3);
}

TEST_F(PresenterTest, BeaconOffSendsNothingAndCommand1036SwitchesAndPersists) {
  start();
  EXPECT_EQ(workers.beaconWorker.switches, std::vector<bool>{false});
  for (int i = 0; i < 8; ++i) presenter->onTimer();
  EXPECT_EQ(workers.beaconWorker.sent, 0);
  check(kIdBeacon, true);
  EXPECT_TRUE(presenter->beaconOn());
  EXPECT_EQ(workers.beaconWorker.switches, (std::vector<bool>{false, true}));
  for (int i = 0; i < 4; ++i) presenter->onTimer();
  EXPECT_EQ(workers.beaconWorker.sent, 1);
  presenter->saveSettings();
  EXPECT_EQ(settings().readInt("Force Inst", 0), 1u);
  check(kIdBeacon, false);
  EXPECT_EQ(workers.beaconWorker.switches.back(), false);
}

// ---- network booting -------------------------------------------------------

TEST_F(PresenterTest, NetworkBootingEnabledAtStartIsHandedToThePxeBooter) {
  settings().writeInt("PXE Enabled", 1);
  settings().writeInt("PXE Client Address", install::parseDottedAddress("192.168.88.1"));
  workers.fakeInterfaces.addAdapter("lan", "192.168.88.2", "255.255.255.0");
  workers.fakeInterfaces.prefixes.push_back({false, {{install::parseDottedAddress("192.168.88.2"), 24}}});
  start();
  ASSERT_EQ(workers.netboot.changes.size(), 1u);
  EXPECT_TRUE(workers.netboot.changes[0].first);
  EXPECT_EQ(workers.netboot.changes[0].second, install::parseDottedAddress("192.168.88.1"));
  EXPECT_TRUE(view.boxes.empty());
}

TEST_F(PresenterTest, NoInterfaceForTheSavedClientAddressIsReported) {
  settings().writeInt("PXE Enabled", 1);
  settings().writeInt("PXE Client Address", install::parseDottedAddress("172.16.0.1"));
  start();
  EXPECT_TRUE(boxShown("Could not find network interface", "Error"));
}

TEST_F(PresenterTest, NetworkBootingOffChecksNothing) {
  settings().writeInt("PXE Client Address", install::parseDottedAddress("172.16.0.1"));
  start();
  EXPECT_TRUE(workers.netboot.changes.empty());
  EXPECT_TRUE(view.boxes.empty());
}

TEST_F(PresenterTest, UnderTheCompatibilityLayerTheGatewayTipIsShown) {
  settings().writeInt("PXE Enabled", 1);
  settings().writeInt("PXE Client Address", install::parseDottedAddress("192.168.88.1"));
  workers.env["WINELOADER"] = "/opt/wine/Application Support/wine";
  workers.fakeInterfaces.addAdapter("lan", "192.168.88.2", "255.255.255.0").gateways = {"192.168.88.254"};
  workers.fakeInterfaces.prefixes.push_back({false, {{install::parseDottedAddress("192.168.88.2"), 24}}});
  start();
  ASSERT_EQ(view.boxes.size(), 1u);
  EXPECT_EQ(view.boxes[0].caption, "Tip");
  EXPECT_EQ(view.boxes[0].text,
            "If your network cable is connected directly to the installing device. Try setting the network gateway "
            "address the same as the interface address.");
}

TEST_F(PresenterTest, TheLocalDrivesFollowTheSameReadingOfTheEnvironment) {
  start();
  EXPECT_FALSE(workers.drivesUnderCompatibilityLayer);
}

TEST_F(PresenterTest, WithAWineLoaderTheDriveHolderIsTheCompatibilityLayersWhateverItsPath) {
  workers.env["WINELOADER"] = "/usr/bin/wine";
  start();
  EXPECT_TRUE(workers.drivesUnderCompatibilityLayer);
}

TEST_F(PresenterTest, WineLoaderWithoutApplicationShowsNoTip) {
  settings().writeInt("PXE Enabled", 1);
  settings().writeInt("PXE Client Address", install::parseDottedAddress("192.168.88.1"));
  workers.env["WINELOADER"] = "/usr/bin/wine";
  workers.fakeInterfaces.addAdapter("lan", "192.168.88.2", "255.255.255.0").gateways = {"192.168.88.254"};
  workers.fakeInterfaces.prefixes.push_back({false, {{install::parseDottedAddress("192.168.88.2"), 24}}});
  start();
  EXPECT_TRUE(view.boxes.empty());
}

TEST_F(PresenterTest, AnotherBootServerAnsweringShowsInTheStatusBarOnce) {
  start();
  presenter->onTimer();
  view.statusText = "There are 2 packages";
  presenter->onTimer();
  EXPECT_EQ(view.statusText, "There are 2 packages");
  workers.netboot.notices.push_back("another boot server answered 02:00:5E:00:08:01: 192.168.88.3");
  presenter->onTimer();
  EXPECT_EQ(view.statusText, "another boot server answered 02:00:5E:00:08:01: 192.168.88.3");
  // Shown once: a later status line is not overwritten by the same notice.
  view.statusText = "There are 3 packages";
  presenter->onTimer();
  EXPECT_EQ(view.statusText, "There are 3 packages");
}

TEST_F(PresenterTest, Command1026OpensTheDialogWithTheCurrentValuesAndHandsOnTheResult) {
  settings().writeInt("PXE Client Address", install::parseDottedAddress("10.0.0.9"));
  start();
  view.netbootAnswer = false;
  click(kIdNetBooting);
  EXPECT_EQ(view.netbootOpened, 1);
  EXPECT_FALSE(view.netbootShownEnabled);
  EXPECT_EQ(view.netbootShownAddress, install::parseDottedAddress("10.0.0.9"));
  EXPECT_TRUE(workers.netboot.changes.empty());
  view.netbootAnswer = true;
  view.netbootEnabledAnswer = true;
  view.netbootAddressAnswer = install::parseDottedAddress("10.0.0.7");
  store->log().clear();
  click(kIdNetBooting);
  // Kept at once, before the PXE Booter hears of it.
  EXPECT_EQ(writes(), (Names{"PXE Enabled", "PXE Client Address"}));
  EXPECT_EQ(settings().readInt("PXE Client Address", 0), install::parseDottedAddress("10.0.0.7"));
  ASSERT_EQ(workers.netboot.changes.size(), 1u);
  EXPECT_EQ(workers.netboot.changes[0], std::make_pair(true, install::parseDottedAddress("10.0.0.7")));
  EXPECT_TRUE(presenter->netbootEnabled());
  presenter->saveSettings();
  EXPECT_EQ(settings().readInt("PXE Enabled", 0), 1u);
  EXPECT_EQ(settings().readInt("PXE Client Address", 0), install::parseDottedAddress("10.0.0.7"));
}

TEST_F(PresenterTest, Command1027ShowsTheHelp) {
  start();
  click(kIdHelp);
  EXPECT_EQ(view.helpShown, 1);
}

TEST_F(PresenterTest, OtherCommandIdsAndCodesAreIgnored) {
  start();
  discover(announced(1));
  selectRow(macOf(1));
  for (int id : {999, 1000, 1003, 1007, 1009, 1016, 1019, 1020, 1031, 1035, 1037, 1043, 2000}) click(id);
  presenter->onCommand(kIdHelp, 5);  // not a click
  EXPECT_EQ(view.helpShown, 0);
  EXPECT_TRUE(view.boxes.empty());
  EXPECT_TRUE(workers.routers.calls.empty());
}

TEST_F(PresenterTest, CommandsThatNeedARouterDoNothingWithoutOne) {
  start();
  for (int id : {kIdReboot, kIdShutdown, kIdInstall, kIdCancel, kIdKeepConfig, kIdScript, kIdScriptBrowse,
                 kIdDefaultConfig, kIdKeepBranding, kIdModeScript, kIdModeScriptBrowse}) {
    check(id, true);
  }
  EXPECT_TRUE(workers.routers.calls.empty());
  EXPECT_EQ(view.scriptDialogs, 0);
  EXPECT_TRUE(view.boxes.empty());
}

// ---- the tick ----------------------------------------------------------------

TEST_F(PresenterTest, ANewRouterGetsPreviousInstallAndTheRememberedDefaults) {
  settings().writeInt("Previous KeepConfig", 0);
  settings().writeInt("Previous Address", install::parseDottedAddress("10.0.0.5"));
  settings().writeInt("Previous NetMask", 24);
  settings().writeInt("Previous Gateway", install::parseDottedAddress("10.0.0.1"));
  settings().writeInt("Previous Baud", 9600);
  settings().writeInt("Previous Script", 1);
  settings().writeString("Previous ScriptFile", "C:\\conf.rsc");
  settings().writeInt("Previous ModeScript", 1);
  settings().writeString("Previous ModeScriptFile", "C:\\mode.rsc");
  {
    app::Registry sets;
    sets.openSubKey(settings(), "Package Sets");
    sets.writeMultiString("Previous Install", {"/prev", "system.npk", "ppp.npk"});
  }
  start();
  discover(announced(1, "R1", 7));
  ASSERT_EQ(view.routerRows.size(), 1u);
  EXPECT_EQ(view.routerRows[0].label, "R1");
  EXPECT_EQ(view.routerRows[0].mac, "02:00:00:00:00:01");
  EXPECT_EQ(view.routerRows[0].status, "Ready");
  EXPECT_EQ(view.routerRows[0].architecture, "arm64");
  const install::RouterRecord& r = record(macOf(1));
  EXPECT_EQ(r.setName, "Previous Install");
  EXPECT_EQ(r.packageDir, "/prev");
  EXPECT_EQ(r.files, (Names{"system.npk", "ppp.npk"}));
  EXPECT_EQ(r.address, install::parseDottedAddress("10.0.0.5"));
  EXPECT_EQ(r.netmaskBits, 24u);
  EXPECT_EQ(r.gateway, install::parseDottedAddress("10.0.0.1"));
  EXPECT_EQ(r.baudRate, 9600u);
  EXPECT_TRUE(r.scriptEnabled);
  EXPECT_EQ(r.scriptPath, "C:\\conf.rsc");
  EXPECT_TRUE(r.modeScriptEnabled);
  EXPECT_EQ(r.modeScriptPath, "C:\\mode.rsc");
  EXPECT_FALSE(r.defaultConfig);
}

TEST_F(PresenterTest, AProtectedRouterAppliesItsDefaultConfigWhenTheRememberedOneIsOff) {
  start();
  install::RouterRecord protectedRouter = announced(1);
  protectedRouter.unprotected = false;
  discover(protectedRouter);
  discover(announced(2));
  EXPECT_TRUE(record(macOf(1)).defaultConfig);
  EXPECT_FALSE(record(macOf(2)).defaultConfig);
}

TEST_F(PresenterTest, ANewRouterWithoutPreviousInstallStartsInThePackageFolder) {
  settings().writeString("Package Path", "/saved");
  start();
  discover(announced(1));
  EXPECT_EQ(record(macOf(1)).packageDir, "/saved");
  EXPECT_EQ(record(macOf(1)).setName, "");
}

TEST_F(PresenterTest, ARouterAnnouncingAgainKeepsOneRowAndStaysReady) {
  start();
  discover(announced(1));
  for (int i = 0; i < 5; ++i) {
    workers.manualClock.advanceMicros(1'000'000);
    discover(announced(1));
  }
  EXPECT_EQ(view.routerRows.size(), 1u);
  EXPECT_EQ(record(macOf(1)).lastSeen, static_cast<int64_t>(workers.manualClock.nowMicros()));
}

TEST_F(PresenterTest, ARouterSilentForMoreThanAMinuteLeavesTheList) {
  start();
  discover(announced(1));
  workers.manualClock.advanceMicros(60'000'000);
  presenter->onTimer();
  EXPECT_EQ(view.routerRows.size(), 1u);
  workers.manualClock.advanceMicros(1);
  presenter->onTimer();
  EXPECT_TRUE(view.routerRows.empty());
}

TEST_F(PresenterTest, InstallingNewsUpdatesRowCaptionProgressAndDisablesInstall) {
  start();
  discover(announced(1));
  selectRow(macOf(1));
  presenter->table().setStatus(macOf(1), install::kStatusInstalling, 0, 0, "");
  workers.routers.sessions[macOf(1)] = {install::kStatusInstalling, 200, 50, "Transferring: system.npk"};
  view.enabled[kIdInstall] = true;
  presenter->onTimer();
  EXPECT_EQ(record(macOf(1)).progress, 50u);
  EXPECT_EQ(record(macOf(1)).statusText, "Transferring: system.npk");
  EXPECT_EQ(view.texts[kIdCaption], "Transferring: system.npk");
  EXPECT_EQ(view.progress, 25);
  EXPECT_FALSE(view.isEnabled(kIdInstall));
  ASSERT_FALSE(view.routerRows.empty());
  EXPECT_EQ(view.routerRows[0].status, "Installing");
}

TEST_F(PresenterTest, WaitingRebootWithRebootChoiceRebootsOnce) {
  start();
  discover(announced(1));
  selectRow(macOf(1));
  presenter->table().setStatus(macOf(1), install::kStatusInstalling, 0, 0, "");
  workers.routers.sessions[macOf(1)] = {install::kStatusWaitingReboot, 100, 100, "Done"};
  presenter->onTimer();
  presenter->onTimer();
  EXPECT_EQ(workers.routers.calls, Names{"reboot"});
  EXPECT_EQ(view.routerRows[0].status, "Waiting reboot");
  EXPECT_FALSE(view.isEnabled(kIdInstall));
}

// The window keeps its moment: it reboots when the status becomes "Waiting
// reboot", before any "WTRM", and not again when the router confirms or the
// session ends.
TEST_F(PresenterTest, TheWindowRebootsWhenTheWaitBeginsNotOnTheRoutersConfirmation) {
  start();
  discover(announced(1));
  selectRow(macOf(1));
  presenter->table().setStatus(macOf(1), install::kStatusInstalling, 0, 0, "");
  workers.routers.sessions[macOf(1)] = {install::kStatusWaitingReboot, 100, 100, "Done", false};
  presenter->onTimer();
  EXPECT_EQ(workers.routers.calls, Names{"reboot"});
  workers.routers.sessions[macOf(1)].confirmed = true;
  presenter->onTimer();
  workers.routers.sessions[macOf(1)] = {install::kStatusDone, 100, 100, "Installation finished successfully", true};
  presenter->onTimer();
  EXPECT_EQ(workers.routers.calls, Names{"reboot"});
  EXPECT_EQ(view.routerRows[0].status, "Done");
}

TEST_F(PresenterTest, WaitingRebootWithShutdownChoiceShutsDown) {
  start();
  discover(announced(1));
  selectRow(macOf(1));
  view.pick(kIdAutoReboot, "Shutdown after installation");
  presenter->table().setStatus(macOf(1), install::kStatusInstalling, 0, 0, "");
  workers.routers.sessions[macOf(1)] = {install::kStatusWaitingReboot, 100, 100, "Done"};
  presenter->onTimer();
  EXPECT_EQ(workers.routers.calls, Names{"shutdown"});
}

TEST_F(PresenterTest, WaitingRebootWithNoneEnablesShutdownAndReboot) {
  start();
  discover(announced(1));
  selectRow(macOf(1));
  view.pick(kIdAutoReboot, "None");
  presenter->table().setStatus(macOf(1), install::kStatusInstalling, 0, 0, "");
  view.enabled[kIdReboot] = false;
  view.enabled[kIdShutdown] = false;
  workers.routers.sessions[macOf(1)] = {install::kStatusWaitingReboot, 100, 100, "Done"};
  presenter->onTimer();
  EXPECT_TRUE(workers.routers.calls.empty());
  EXPECT_TRUE(view.isEnabled(kIdReboot));
  EXPECT_TRUE(view.isEnabled(kIdShutdown));
  EXPECT_FALSE(view.isEnabled(kIdInstall));
}

TEST_F(PresenterTest, TheAutoRebootChoiceActsForTheSelectedRouterOnly) {
  start();
  discover(announced(1));
  discover(announced(2));
  selectRow(macOf(2));
  presenter->table().setStatus(macOf(1), install::kStatusInstalling, 0, 0, "");
  workers.routers.sessions[macOf(1)] = {install::kStatusWaitingReboot, 100, 100, "Done"};
  presenter->onTimer();
  EXPECT_TRUE(workers.routers.calls.empty());
  EXPECT_EQ(record(macOf(1)).status, install::kStatusWaitingReboot);
}

TEST_F(PresenterTest, DoneAndFailedNewsReachTheTableWithTheirImages) {
  start();
  discover(announced(1));
  discover(announced(2));
  presenter->table().setStatus(macOf(1), install::kStatusWaitingReboot, 0, 0, "");
  presenter->table().setStatus(macOf(2), install::kStatusInstalling, 0, 0, "");
  workers.routers.sessions[macOf(1)] = {install::kStatusDone, 100, 100, "Installation finished successfully"};
  workers.routers.sessions[macOf(2)] = {install::kStatusFailed, 100, 0, "Installation failed: bad router response"};
  presenter->onTimer();
  EXPECT_EQ(view.routerRows[rowOf(macOf(1))].status, "Done");
  EXPECT_EQ(view.routerRows[rowOf(macOf(1))].image, 1);
  EXPECT_EQ(view.routerRows[rowOf(macOf(2))].status, "Failed");
  EXPECT_EQ(view.routerRows[rowOf(macOf(2))].image, 2);
  EXPECT_EQ(record(macOf(2)).statusText, "Installation failed: bad router response");
}

TEST_F(PresenterTest, ASessionThatIsGoneHandsStatusZeroToTheTableAndTheRowStays) {
  start();
  discover(announced(1));
  presenter->table().setStatus(macOf(1), install::kStatusInstalling, 0, 0, "");
  presenter->onTimer();  // no session for it
  ASSERT_NE(presenter->table().find(macOf(1)), nullptr);
  EXPECT_EQ(record(macOf(1)).status, install::kStatusNone);
  ASSERT_FALSE(view.routerRows.empty());
  EXPECT_EQ(view.routerRows[0].status, "");
  // It is no longer polled; a fresh announcement replaces it as "Ready".
  discover(announced(1));
  EXPECT_EQ(record(macOf(1)).status, install::kStatusReady);
  EXPECT_EQ(view.routerRows[0].status, "Ready");
}

TEST_F(PresenterTest, DrivesAreRowsWithPreviousInstallAndTheRememberedBaud) {
  settings().writeInt("Previous Baud", 115200);
  {
    app::Registry sets;
    sets.openSubKey(settings(), "Package Sets");
    sets.writeMultiString("Previous Install", {"/prev", "system.npk"});
  }
  workers.drives.drives = {drive('E', 2), drive('D', 3)};
  start();
  ASSERT_EQ(view.routerRows.size(), 2u);
  EXPECT_EQ(view.routerRows[0].label, "D:\\");
  EXPECT_EQ(view.routerRows[0].mac, "Hard disk");
  EXPECT_EQ(view.routerRows[0].image, 3);
  EXPECT_EQ(view.routerRows[1].mac, "Removable media");
  EXPECT_EQ(view.routerRows[1].image, 4);
  const install::RouterRecord& d = record(drive('D').mac);
  EXPECT_EQ(d.baudRate, 115200u);
  EXPECT_EQ(d.setName, "Previous Install");
  EXPECT_EQ(d.files, Names{"system.npk"});
}

// The disk that would be erased: its size in the row's last column beside
// the root path, and whole in the status bar once the row is chosen.
TEST_F(PresenterTest, ADrivesDiskIsShownInItsRowAndOnceInTheStatusBar) {
  install::RouterRecord stick = drive('E', 2);
  stick.driveDescription = "disk 1, 16.0 GB, SanDisk Cruzer Blade";
  stick.driveSize = "16.0 GB";
  workers.drives.drives = {stick, drive('D', 3)};
  start();
  ASSERT_EQ(view.routerRows.size(), 2u);
  EXPECT_EQ(view.routerRows[0].label, "D:\\");
  EXPECT_EQ(view.routerRows[1].label, "E:\\");
  EXPECT_EQ(view.routerRows[1].architecture, "16.0 GB");
  EXPECT_EQ(view.routerRows[0].architecture, "") << "a drive of unknown size";
  EXPECT_EQ(record(stick.mac).label, "E:\\") << "the record keeps the root path";
  view.statusText.clear();
  selectRow(stick.mac);
  presenter->onPrivateMessage(kRefreshCode);
  EXPECT_EQ(view.statusText, "E:\\ is disk 1, 16.0 GB, SanDisk Cruzer Blade: Install erases the whole disk");
  // Said once per choice: what the status bar shows next stays.
  view.statusText = "There are 2 packages";
  presenter->onPrivateMessage(kRefreshCode);
  EXPECT_EQ(view.statusText, "There are 2 packages");
  selectRow(drive('D').mac);
  presenter->onPrivateMessage(kRefreshCode);
  EXPECT_EQ(view.statusText, "There are 2 packages") << "a drive without a description";
  selectRow(stick.mac);
  presenter->onPrivateMessage(kRefreshCode);
  EXPECT_EQ(view.statusText, "E:\\ is disk 1, 16.0 GB, SanDisk Cruzer Blade: Install erases the whole disk");
}

TEST_F(PresenterTest, DriveNewsIsPolledAndADriveWithoutInstallationIsRemoved) {
  workers.drives.drives = {drive('E')};
  start();
  net::MacAddress mac = drive('E').mac;
  presenter->table().setStatus(mac, install::kStatusInstalling, 0, 0, "");
  workers.drives.installs[mac] = {install::kStatusInstalling, 1000, 500, "Copying file: system.npk"};
  presenter->onTimer();
  EXPECT_EQ(record(mac).progress, 500u);
  ASSERT_FALSE(view.routerRows.empty());
  EXPECT_EQ(view.routerRows[0].status, "Installing");
  workers.drives.installs.erase(mac);
  presenter->onTimer();
  EXPECT_EQ(workers.drives.cancelled, std::vector<net::MacAddress>{mac});
}

// ---- edge cases of the fields ----------------------------------------------

TEST_F(PresenterTest, TheBroadcastAddressTypedIntoAFieldIsStoredAsZero) {
  start();
  discover(announced(1));
  selectRow(macOf(1));
  view.texts[kIdAddress] = "255.255.255.255";
  view.texts[kIdNetmask] = "24";
  view.texts[kIdGateway] = "255.255.255.255";
  check(kIdScript, false);
  EXPECT_EQ(record(macOf(1)).address, 0u);
  EXPECT_EQ(record(macOf(1)).gateway, 0u);
  EXPECT_EQ(view.texts[kIdAddress], "");
}

TEST_F(PresenterTest, ANetmaskLengthOf40IsStoredAs32) {
  start();
  discover(announced(1));
  selectRow(macOf(1));
  view.texts[kIdAddress] = "10.0.0.5";
  view.texts[kIdNetmask] = "40";
  view.texts[kIdGateway] = "abc";
  check(kIdScript, false);
  EXPECT_EQ(record(macOf(1)).netmaskBits, 32u);
  EXPECT_EQ(record(macOf(1)).address, install::parseDottedAddress("10.0.0.5"));
  EXPECT_EQ(record(macOf(1)).gateway, 0u);
  EXPECT_EQ(view.texts[kIdNetmask], "32");
}

TEST_F(PresenterTest, ChangingTheSelectionTakesTheFieldsIntoTheRouterShown) {
  start();
  discover(announced(1, "First"));
  discover(announced(2, "Second"));
  selectRow(macOf(1));
  view.texts[kIdAddress] = "10.9.9.9";
  view.texts[kIdNetmask] = "40";
  view.texts[kIdGateway] = "10.9.9.1";
  view.texts[kIdScriptPath] = "C:\\a.rsc";
  view.texts[kIdModeScriptPath] = "C:\\m.rsc";
  view.posted.clear();
  selectRow(macOf(2));
  EXPECT_EQ(view.posted, std::vector<uint32_t>{kRefreshCode});
  EXPECT_TRUE(log.contains("changing First\n"));
  const install::RouterRecord& first = record(macOf(1));
  EXPECT_EQ(first.address, install::parseDottedAddress("10.9.9.9"));
  EXPECT_EQ(first.netmaskBits, 32u);
  EXPECT_EQ(first.gateway, install::parseDottedAddress("10.9.9.1"));
  EXPECT_EQ(first.scriptPath, "C:\\a.rsc");
  EXPECT_EQ(first.modeScriptPath, "C:\\m.rsc");
  // The second router's own values are shown now.
  EXPECT_EQ(view.texts[kIdAddress], "");
  EXPECT_EQ(record(macOf(2)).address, 0u);
}

// Reading which router the list shows leaves the table as it was: the
// refreshes that ask it many times a second do not mark a row.
TEST_F(PresenterTest, AskingForTheShownRouterChangesNothingInTheTable) {
  start();
  discover(announced(1));
  discover(announced(2));
  presenter->table().select(macOf(2));
  selectRow(macOf(1));
  presenter->onPrivateMessage(kRefreshCode);
  presenter->onRouterItemChanging();
  ASSERT_NE(presenter->table().selected(), nullptr);
  EXPECT_EQ(presenter->table().selected()->record.mac, macOf(2));
  view.routerSelection = -1;
  presenter->onPrivateMessage(kRefreshCode);
  ASSERT_NE(presenter->table().selected(), nullptr);
  EXPECT_EQ(presenter->table().selected()->record.mac, macOf(2));
}

}  // namespace
}  // namespace tarnlift::ui
