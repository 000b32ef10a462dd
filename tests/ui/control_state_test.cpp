// The control-state table row by row, and the progress bar's difference rule.
#include <gtest/gtest.h>

#include "install/install_datagram.h"
#include "tests/ui/presenter_fixture.h"

namespace tarnlift::ui {
namespace {

using testing::announced;
using testing::drive;
using testing::macOf;
using testing::PresenterTest;

class ControlStateTest : public PresenterTest {
 protected:
  void SetUp() override {
    PresenterTest::SetUp();
    start();
    discover(announced(1, "R1"));
    selectRow(macOf(1));
  }
  install::RouterRecord& r() { return record(macOf(1)); }
  void refresh() { presenter->onPrivateMessage(kRefreshCode); }
  void setStatus(uint32_t status) {
    presenter->table().setStatus(macOf(1), status, r().totalSize, r().progress, r().statusText);
    refresh();
  }
  bool on(int id) { return view.isEnabled(id); }
};

TEST_F(ControlStateTest, SetListEnabledOnlyWhenReady) {
  EXPECT_TRUE(on(kIdSets));
  setStatus(install::kStatusInstalling);
  EXPECT_FALSE(on(kIdSets));
}

TEST_F(ControlStateTest, AddressFieldsWritableWhenNetReadyAndNeitherKeepNorDefault) {
  r().address = install::parseDottedAddress("10.1.1.2");
  r().netmaskBits = 16;
  r().gateway = install::parseDottedAddress("10.1.1.1");
  refresh();
  EXPECT_EQ(view.texts[kIdAddress], "10.1.1.2");
  EXPECT_EQ(view.texts[kIdNetmask], "16");
  EXPECT_EQ(view.texts[kIdGateway], "10.1.1.1");
  for (int id : {kIdAddress, kIdNetmask, kIdGateway}) EXPECT_FALSE(view.readOnly[id]) << id;
  r().keepConfig = true;
  refresh();
  for (int id : {kIdAddress, kIdNetmask, kIdGateway}) EXPECT_TRUE(view.readOnly[id]) << id;
  r().keepConfig = false;
  r().defaultConfig = true;
  refresh();
  for (int id : {kIdAddress, kIdNetmask, kIdGateway}) EXPECT_TRUE(view.readOnly[id]) << id;
  r().defaultConfig = false;
  setStatus(install::kStatusWaitingReboot);
  for (int id : {kIdAddress, kIdNetmask, kIdGateway}) EXPECT_TRUE(view.readOnly[id]) << id;
}

TEST_F(ControlStateTest, AddressFieldsAreEmptyForZeroAndReadOnlyForADrive) {
  EXPECT_EQ(view.texts[kIdAddress], "");
  EXPECT_EQ(view.texts[kIdNetmask], "");
  EXPECT_EQ(view.texts[kIdGateway], "");
  workers.drives.drives = {drive('E')};
  presenter->desk().addDrives();
  presenter->refreshRouterList();
  selectRow(drive('E').mac);
  ASSERT_NE(presenter->selectedRouter(), nullptr);
  ASSERT_EQ(presenter->selectedRouter()->kind, install::kKindDrive);
  for (int id : {kIdAddress, kIdNetmask, kIdGateway}) EXPECT_TRUE(view.readOnly[id]) << id;
}

TEST_F(ControlStateTest, KeepConfigEnabledWhenNetReadyAndNoDefaultScriptOrModeScript) {
  EXPECT_TRUE(on(kIdKeepConfig));
  r().keepConfig = true;
  refresh();
  EXPECT_TRUE(view.checked[kIdKeepConfig]);
  r().keepConfig = false;
  for (bool install::RouterRecord::*flag :
       {&install::RouterRecord::defaultConfig, &install::RouterRecord::scriptEnabled,
        &install::RouterRecord::modeScriptEnabled}) {
    r().*flag = true;
    refresh();
    EXPECT_FALSE(on(kIdKeepConfig));
    r().*flag = false;
  }
  refresh();
  EXPECT_TRUE(on(kIdKeepConfig));
  workers.drives.drives = {drive('E')};
  presenter->desk().addDrives();
  presenter->refreshRouterList();
  selectRow(drive('E').mac);
  ASSERT_NE(presenter->selectedRouter(), nullptr);
  ASSERT_EQ(presenter->selectedRouter()->kind, install::kKindDrive);
  EXPECT_FALSE(on(kIdKeepConfig));
}

TEST_F(ControlStateTest, BaudEnabledWhenReadyAndNeitherKeepNorDefaultShowingTheRate) {
  EXPECT_TRUE(on(kIdBaud));
  EXPECT_EQ(view.selectedIndex(kIdBaud), -1);  // 0: no entry
  r().baudRate = 9600;
  refresh();
  EXPECT_EQ(view.selectedText(kIdBaud), "9600");
  r().keepConfig = true;
  refresh();
  EXPECT_FALSE(on(kIdBaud));
  r().keepConfig = false;
  r().defaultConfig = true;
  refresh();
  EXPECT_FALSE(on(kIdBaud));
}

TEST_F(ControlStateTest, KeepBrandingEnabledWhenTheRouterCanKeepBranding) {
  EXPECT_FALSE(on(kIdKeepBranding));
  EXPECT_TRUE(view.checked[kIdKeepBranding]);
  r().hasBranding = true;
  refresh();
  EXPECT_TRUE(on(kIdKeepBranding));
  setStatus(install::kStatusInstalling);
  EXPECT_FALSE(on(kIdKeepBranding));
}

TEST_F(ControlStateTest, ApplyDefaultConfigNeedsReadyNoKeepNoScriptAndADefault) {
  // An unprotected router has no default configuration to apply.
  EXPECT_FALSE(on(kIdDefaultConfig));
  r().unprotected = false;
  refresh();
  EXPECT_TRUE(on(kIdDefaultConfig));
  r().keepConfig = true;
  refresh();
  EXPECT_FALSE(on(kIdDefaultConfig));
  r().keepConfig = false;
  r().scriptEnabled = true;
  refresh();
  EXPECT_FALSE(on(kIdDefaultConfig));
  r().scriptEnabled = false;
  r().defaultConfig = true;
  refresh();
  EXPECT_TRUE(on(kIdDefaultConfig));
  EXPECT_TRUE(view.checked[kIdDefaultConfig]);
  setStatus(install::kStatusInstalling);
  EXPECT_FALSE(on(kIdDefaultConfig));
}

// A router that reports its branding protected, as discovery and the tick
// make it: "Apply default config" on and free to clear; with it on, the
// address, keep-configuration, baud and script controls wait; cleared, they
// open up.
TEST_F(ControlStateTest, ProtectedRouterWholeControlState) {
  install::RouterRecord protectedRouter = announced(2, "Branded");
  protectedRouter.unprotected = false;
  protectedRouter.keepBranding = true;
  protectedRouter.hasBranding = false;
  discover(protectedRouter);
  selectRow(macOf(2));
  const install::RouterRecord& p = record(macOf(2));
  ASSERT_TRUE(p.defaultConfig);
  EXPECT_TRUE(on(kIdDefaultConfig));
  EXPECT_TRUE(view.checked[kIdDefaultConfig]);
  for (int id : {kIdAddress, kIdNetmask, kIdGateway}) EXPECT_TRUE(view.readOnly[id]) << id;
  EXPECT_FALSE(on(kIdKeepConfig));
  EXPECT_FALSE(on(kIdBaud));
  EXPECT_FALSE(on(kIdScript));
  EXPECT_FALSE(on(kIdKeepBranding));  // protected branding cannot be kept or dropped
  EXPECT_TRUE(on(kIdModeScript));
  EXPECT_TRUE(on(kIdSets));
  EXPECT_TRUE(on(kIdInstall));
  EXPECT_TRUE(on(kIdReboot));
  EXPECT_TRUE(on(kIdShutdown));
  EXPECT_TRUE(on(kIdCancel));

  check(kIdDefaultConfig, false);
  EXPECT_FALSE(record(macOf(2)).defaultConfig);
  EXPECT_TRUE(on(kIdDefaultConfig));
  EXPECT_FALSE(view.checked[kIdDefaultConfig]);
  for (int id : {kIdAddress, kIdNetmask, kIdGateway}) EXPECT_FALSE(view.readOnly[id]) << id;
  EXPECT_TRUE(on(kIdKeepConfig));
  EXPECT_TRUE(on(kIdBaud));
  EXPECT_TRUE(on(kIdScript));
  EXPECT_FALSE(on(kIdKeepBranding));

  check(kIdDefaultConfig, true);
  EXPECT_TRUE(record(macOf(2)).defaultConfig);
  EXPECT_TRUE(view.readOnly[kIdAddress]);
}

TEST_F(ControlStateTest, ConfigureScriptAndItsPathAndButton) {
  EXPECT_TRUE(on(kIdScript));
  EXPECT_FALSE(on(kIdScriptPath));
  EXPECT_FALSE(on(kIdScriptBrowse));
  r().scriptEnabled = true;
  r().scriptPath = "C:\\conf.rsc";
  refresh();
  EXPECT_TRUE(view.checked[kIdScript]);
  EXPECT_TRUE(on(kIdScriptPath));
  EXPECT_TRUE(on(kIdScriptBrowse));
  EXPECT_EQ(view.texts[kIdScriptPath], "C:\\conf.rsc");
  r().defaultConfig = true;
  refresh();
  EXPECT_FALSE(on(kIdScript));
  EXPECT_FALSE(on(kIdScriptPath));
  r().defaultConfig = false;
  r().keepConfig = true;
  refresh();
  EXPECT_FALSE(on(kIdScript));
  EXPECT_FALSE(on(kIdScriptBrowse));
}

TEST_F(ControlStateTest, ModeScriptAndItsPathAndButton) {
  EXPECT_TRUE(on(kIdModeScript));
  EXPECT_FALSE(on(kIdModeScriptPath));
  r().modeScriptEnabled = true;
  r().modeScriptPath = "C:\\mode.rsc";
  refresh();
  EXPECT_TRUE(view.checked[kIdModeScript]);
  EXPECT_TRUE(on(kIdModeScriptPath));
  EXPECT_TRUE(on(kIdModeScriptBrowse));
  EXPECT_EQ(view.texts[kIdModeScriptPath], "C:\\mode.rsc");
  // Apply default config does not lock the mode script.
  r().defaultConfig = true;
  refresh();
  EXPECT_TRUE(on(kIdModeScript));
  r().keepConfig = true;
  refresh();
  EXPECT_FALSE(on(kIdModeScript));
  EXPECT_FALSE(on(kIdModeScriptPath));
  EXPECT_FALSE(on(kIdModeScriptBrowse));
}

TEST_F(ControlStateTest, ProgressIsDoneTimes100OverTotalMovedByTheDifference) {
  presenter->table().setStatus(macOf(1), install::kStatusInstalling, 300, 100, "Transferring: a");
  refresh();
  EXPECT_EQ(view.progress, 33);
  EXPECT_EQ(view.moves.back(), 33);
  presenter->table().setStatus(macOf(1), install::kStatusInstalling, 300, 200, "Transferring: a");
  refresh();
  EXPECT_EQ(view.moves.back(), 33);
  EXPECT_EQ(view.progress, 66);
  EXPECT_EQ(presenter->lastPercent(), 66);
  size_t moves = view.moves.size();
  refresh();  // the same percentage: no move
  EXPECT_EQ(view.moves.size(), moves);
  presenter->table().setStatus(macOf(1), install::kStatusInstalling, 0, 200, "x");  // total 0: 0 %
  refresh();
  EXPECT_EQ(view.moves.back(), -66);
  EXPECT_EQ(view.progress, 0);
}

TEST_F(ControlStateTest, CaptionIsTheCountWhenReadyTheTextOtherwiseEmptyWithoutRouter) {
  r().files = {"a.npk", "b.npk", "c.npk"};
  refresh();
  EXPECT_EQ(view.texts[kIdCaption], "Selected 3 package(s)");
  presenter->table().setStatus(macOf(1), install::kStatusFailed, 0, 0, "Installation failed: bad router response");
  refresh();
  EXPECT_EQ(view.texts[kIdCaption], "Installation failed: bad router response");
  selectNone();
  EXPECT_EQ(view.texts[kIdCaption], "");
}

TEST_F(ControlStateTest, ShutdownRebootInstallEnabledForReadyOrWaitingReboot) {
  for (uint32_t status : {install::kStatusReady, install::kStatusDone, install::kStatusFailed,
                          install::kStatusInstalling, install::kStatusWaitingReboot, install::kStatusNone}) {
    setStatus(status);
    bool expected = status == install::kStatusReady || status == install::kStatusWaitingReboot;
    for (int id : {kIdShutdown, kIdReboot, kIdInstall}) EXPECT_EQ(on(id), expected) << id << " " << status;
    EXPECT_TRUE(on(kIdCancel)) << status;
  }
}

TEST_F(ControlStateTest, SaveAndDeleteSetFollowTheShownSet) {
  EXPECT_TRUE(on(kIdSaveSet));
  EXPECT_FALSE(on(kIdDeleteSet));
  presenter->sets().rememberPreviousInstall({"", presenter->catalogue().folder(), {"a.npk"}});
  presenter->listSets();
  r().setName = "Previous Install";
  refresh();
  EXPECT_EQ(view.selectedText(kIdSets), "Previous Install");
  EXPECT_FALSE(on(kIdSaveSet));
  EXPECT_TRUE(on(kIdDeleteSet));
  setStatus(install::kStatusInstalling);
  EXPECT_FALSE(on(kIdSaveSet));
  EXPECT_FALSE(on(kIdDeleteSet));
}

TEST_F(ControlStateTest, SelectAllAndNoneEnabledWhenReady) {
  EXPECT_TRUE(on(kIdSelectAll));
  EXPECT_TRUE(on(kIdSelectNone));
  setStatus(install::kStatusDone);
  EXPECT_FALSE(on(kIdSelectAll));
  EXPECT_FALSE(on(kIdSelectNone));
}

TEST_F(ControlStateTest, WithoutARouterEverythingIsEmptiedDisabledAndUnchecked) {
  r().address = install::parseDottedAddress("10.0.0.1");
  r().netmaskBits = 8;
  r().keepConfig = true;
  r().baudRate = 9600;
  r().scriptPath = "C:\\x.rsc";
  presenter->table().setStatus(macOf(1), install::kStatusInstalling, 100, 50, "x");
  refresh();
  selectNone();
  for (int id : {kIdAddress, kIdNetmask, kIdGateway, kIdScriptPath, kIdModeScriptPath, kIdCaption}) {
    EXPECT_EQ(view.texts[id], "") << id;
  }
  for (int id : {kIdAddress, kIdNetmask, kIdGateway}) EXPECT_TRUE(view.readOnly[id]) << id;
  for (int id : {kIdSets, kIdKeepConfig, kIdBaud, kIdKeepBranding, kIdDefaultConfig, kIdScript, kIdScriptPath,
                 kIdScriptBrowse, kIdModeScript, kIdModeScriptPath, kIdModeScriptBrowse, kIdShutdown, kIdReboot,
                 kIdInstall, kIdCancel, kIdSaveSet, kIdDeleteSet, kIdSelectAll, kIdSelectNone}) {
    EXPECT_FALSE(on(id)) << id;
  }
  for (int id : {kIdKeepConfig, kIdKeepBranding, kIdDefaultConfig, kIdScript, kIdModeScript}) {
    EXPECT_FALSE(view.checked[id]) << id;
  }
  EXPECT_EQ(view.progress, 0);
  EXPECT_EQ(view.selectedIndex(kIdSets), -1);
  EXPECT_EQ(view.selectedIndex(kIdBaud), -1);
}

}  // namespace
}  // namespace tarnlift::ui
