// The command table row by row, and the other notifications of the window.
#include <gtest/gtest.h>

#include "install/install_datagram.h"
#include "tests/packages/package_test_support.h"
#include "tests/ui/presenter_fixture.h"
#include "tools/mkpkg/package_writer.h"

namespace tarnlift::ui {
namespace {

using packages::testing::ScratchFolder;
using packages::testing::v;
using testing::announced;
using testing::drive;
using testing::macOf;
using testing::PresenterTest;
using Names = std::vector<std::string>;

// A mipsel folder: ppp needs system; wifi needs a package nobody provides.
void writeFolder(const ScratchFolder& folder) {
  auto write = [&](const std::string& file, const std::string& name,
                   const std::vector<mkpkg::DependencyEntry>& dependencies) {
    mkpkg::PackageWriter writer;
    writer.package(name, v("6.41")).architecture("mipsel");
    if (!dependencies.empty()) writer.dependencies(dependencies);
    folder.write(file, writer);
  };
  write("ppp-6.41.npk", "ppp", {{"system", v("6.0"), 0}});
  write("system-6.41.npk", "system", {});
  write("wifi-6.41.npk", "wifi", {{"nowhere", v("1.0"), 0}});
}

constexpr int kPpp = 0;
constexpr int kSystem = 1;
constexpr int kWifi = 2;

class CommandsTest : public PresenterTest {
 protected:
  void SetUp() override {
    PresenterTest::SetUp();
    writeFolder(folder);
    settings().writeString("Package Path", folder.path());
    start();
    discover(announced(1, "R1"));
    selectRow(macOf(1));
  }
  install::RouterRecord& r1() { return record(macOf(1)); }
  ScratchFolder folder;
};

// ---- 1004 -------------------------------------------------------------------

TEST_F(CommandsTest, BrowseChoosesTheFolderShowsItAndHandsItToTheRouter) {
  ScratchFolder other;
  view.browser.answer = true;
  view.browser.folder = other.path();
  click(kIdBrowse);
  EXPECT_EQ(view.browser.opened, 1);
  EXPECT_EQ(view.texts[kIdPackageDir], other.path());
  EXPECT_EQ(presenter->catalogue().folder(), other.path());
  EXPECT_EQ(r1().packageDir, other.path());
  // A router found later starts there too.
  discover(announced(2));
  EXPECT_EQ(record(macOf(2)).packageDir, other.path());
}

TEST_F(CommandsTest, BrowseCancelledChangesNothing) {
  view.browser.answer = false;
  click(kIdBrowse);
  EXPECT_EQ(presenter->catalogue().folder(), folder.path());
  EXPECT_EQ(r1().packageDir, folder.path());
}

// ---- 1011, 1012 and the set list -------------------------------------------

TEST_F(CommandsTest, SaveSetWithNothingTickedRefusesWithoutDialog) {
  click(kIdSaveSet);
  ASSERT_EQ(view.boxes.size(), 1u);
  EXPECT_EQ(view.boxes[0].text, "Cannot create empty package set");
  EXPECT_EQ(view.boxes[0].caption, "Error");
  EXPECT_TRUE(view.setNameShown.empty());
}

TEST_F(CommandsTest, SaveSetStoresSelectsAndSwapsTheButtons) {
  presenter->onPackageClick(kPpp);
  EXPECT_TRUE(view.isEnabled(kIdSaveSet));
  view.setNameAnswers = {"Office"};
  click(kIdSaveSet);
  EXPECT_EQ(view.setNameShown, Names{"Router x"});
  EXPECT_EQ(view.items[kIdSets], Names{"Office"});
  EXPECT_EQ(view.selectedText(kIdSets), "Office");
  EXPECT_FALSE(view.isEnabled(kIdSaveSet));
  EXPECT_TRUE(view.isEnabled(kIdDeleteSet));
  EXPECT_EQ(presenter->sets().sets().at("Office"), (Names{folder.path(), "ppp-6.41.npk", "system-6.41.npk"}));
  // Changing the selection by hand enables "Save set" again.
  presenter->onPackageClick(kPpp);
  EXPECT_TRUE(view.isEnabled(kIdSaveSet));
  EXPECT_FALSE(view.isEnabled(kIdDeleteSet));
  EXPECT_EQ(view.selectedText(kIdSets), "");
}

TEST_F(CommandsTest, SaveSetUnderAnExistingNameReopensTheDialogWithThatName) {
  presenter->onPackageClick(kSystem);
  view.setNameAnswers = {"Office"};
  click(kIdSaveSet);
  presenter->onPackageClick(kPpp);
  view.setNameAnswers = {"Office", "\x1b"};
  click(kIdSaveSet);
  EXPECT_EQ(view.setNameShown, (Names{"Router x", "Router x", "Office"}));
  EXPECT_EQ(view.boxes.back().text, "Package set with this name already exists");
  EXPECT_EQ(view.items[kIdSets], Names{"Office"});
}

TEST_F(CommandsTest, DeleteSetRemovesTheShownSetFromListMapAndStore) {
  presenter->onPackageClick(kSystem);
  view.setNameAnswers = {"Office"};
  click(kIdSaveSet);
  presenter->saveSettings();
  store->log().clear();
  click(kIdDeleteSet);
  EXPECT_TRUE(view.items[kIdSets].empty());
  EXPECT_FALSE(presenter->sets().contains("Office"));
  EXPECT_TRUE(view.isEnabled(kIdSaveSet));
  EXPECT_FALSE(view.isEnabled(kIdDeleteSet));
  EXPECT_EQ(store->log(), Names{"delete Office"});
  EXPECT_EQ(r1().setName, "");
}

TEST_F(CommandsTest, DeleteSetWithNoneSelectedDoesNothing) {
  presenter->sets().rememberPreviousInstall({"", folder.path(), {"system-6.41.npk"}});
  click(kIdDeleteSet);
  EXPECT_TRUE(presenter->sets().contains("Previous Install"));
}

TEST_F(CommandsTest, ChoosingASetMovesTheRouterToItsFolderAndFiles) {
  ScratchFolder other;
  writeFolder(other);
  {
    app::Registry sets;
    sets.openSubKey(settings(), "Package Sets");
  }
  presenter->sets().rememberPreviousInstall({"", other.path(), {"system-6.41.npk"}});
  presenter->listSets();
  view.pick(kIdSets, "Previous Install");
  presenter->onCommand(kIdSets, kNotifySelChange);
  EXPECT_EQ(r1().setName, "Previous Install");
  EXPECT_EQ(r1().packageDir, other.path());
  EXPECT_EQ(r1().files, Names{"system-6.41.npk"});
  EXPECT_EQ(presenter->catalogue().folder(), other.path());
  EXPECT_EQ(view.texts[kIdPackageDir], other.path());
  EXPECT_EQ(view.packageStates(), (std::vector<int>{2, 1, 3}));
  EXPECT_EQ(view.texts[kIdCaption], "Selected 1 package(s)");
}

// The combo always shows the selected router's own set: "Previous Install"
// given to a router found later does not change what this one shows.
TEST_F(CommandsTest, TheSetListFollowsTheSelectedRouter) {
  presenter->onPackageClick(kSystem);
  view.setNameAnswers = {"Office"};
  click(kIdSaveSet);
  presenter->sets().rememberPreviousInstall({"", folder.path(), {"ppp-6.41.npk", "system-6.41.npk"}});
  presenter->listSets();
  discover(announced(2, "R2"));
  presenter->onPrivateMessage(kRefreshCode);
  EXPECT_EQ(view.selectedText(kIdSets), "Office");
  selectRow(macOf(2));
  EXPECT_EQ(view.selectedText(kIdSets), "Previous Install");
  selectRow(macOf(1));
  EXPECT_EQ(view.selectedText(kIdSets), "Office");
  // Deleting the set shown for R1 leaves R2's alone.
  click(kIdDeleteSet);
  EXPECT_TRUE(presenter->sets().contains("Previous Install"));
  selectRow(macOf(2));
  EXPECT_EQ(view.selectedText(kIdSets), "Previous Install");
}

// ---- 1014, 1015 ----------------------------------------------------------------

TEST_F(CommandsTest, SelectAllAndSelectNone) {
  click(kIdSelectAll);
  EXPECT_EQ(r1().files, (Names{"ppp-6.41.npk", "system-6.41.npk"}));
  EXPECT_EQ(view.packageStates(), (std::vector<int>{1, 1, 3}));
  EXPECT_EQ(view.texts[kIdCaption], "Selected 2 package(s)");
  click(kIdSelectNone);
  EXPECT_TRUE(r1().files.empty());
  EXPECT_EQ(view.packageStates(), (std::vector<int>{2, 2, 3}));
  EXPECT_EQ(view.texts[kIdCaption], "Selected 0 package(s)");
}

TEST_F(CommandsTest, SelectAllWithoutARouterDoesNothing) {
  selectNone();
  click(kIdSelectAll);
  EXPECT_EQ(view.packageStates(), (std::vector<int>{0, 0, 3}));
  EXPECT_TRUE(r1().files.empty());
}

// ---- 1018, 1021 ------------------------------------------------------------------

TEST_F(CommandsTest, RebootOfAReadyRouterMakesASessionFirstThenEndsItAsDone) {
  click(kIdReboot);
  EXPECT_EQ(workers.routers.calls, (Names{"start command", "reboot", "remove"}));
  EXPECT_EQ(r1().status, install::kStatusDone);
  EXPECT_EQ(r1().statusText, "");
  ASSERT_FALSE(view.routerRows.empty());
  EXPECT_EQ(view.routerRows[0].status, "Done");
}

TEST_F(CommandsTest, ShutdownOfAReadyRouter) {
  click(kIdShutdown);
  EXPECT_EQ(workers.routers.calls, (Names{"start command", "shutdown", "remove"}));
  EXPECT_EQ(r1().status, install::kStatusDone);
}

TEST_F(CommandsTest, RebootOfARouterWaitingForItUsesItsSession) {
  presenter->table().setStatus(macOf(1), install::kStatusWaitingReboot, 10, 10, "Done");
  workers.routers.sessions[macOf(1)] = {install::kStatusWaitingReboot, 10, 10, "Done"};
  click(kIdReboot);
  EXPECT_EQ(workers.routers.calls, Names{"reboot"});
  EXPECT_EQ(r1().status, install::kStatusWaitingReboot);
}

// ---- 1023 ----------------------------------------------------------------------

TEST_F(CommandsTest, InstallRefusesAMissingConfigurationScript) {
  presenter->onPackageClick(kSystem);
  check(kIdScript, true);
  view.texts[kIdScriptPath] = "C:\\missing.rsc";
  click(kIdInstall);
  ASSERT_EQ(view.boxes.size(), 1u);
  EXPECT_EQ(view.boxes[0].text, "Could not read configuration script");
  EXPECT_EQ(view.boxes[0].caption, "Error");
  EXPECT_TRUE(workers.routers.started.empty());
}

TEST_F(CommandsTest, InstallRefusesAMissingModeScript) {
  presenter->onPackageClick(kSystem);
  check(kIdModeScript, true);
  view.texts[kIdModeScriptPath] = "C:\\missing.rsc";
  click(kIdInstall);
  ASSERT_EQ(view.boxes.size(), 1u);
  EXPECT_EQ(view.boxes[0].text, "Could not read mode script");
  EXPECT_EQ(view.boxes[0].caption, "Error");
  EXPECT_TRUE(workers.routers.started.empty());
}

TEST_F(CommandsTest, InstallStartsTheSessionAndRemembersTheOptions) {
  presenter->onPackageClick(kPpp);
  view.texts[kIdAddress] = "10.0.0.5";
  view.texts[kIdNetmask] = "24";
  view.texts[kIdGateway] = "10.0.0.1";
  view.pick(kIdBaud, "9600");
  presenter->onCommand(kIdBaud, kNotifySelChange);
  click(kIdInstall);
  ASSERT_EQ(workers.routers.started.size(), 1u);
  const install::RouterRecord& request = workers.routers.started[0].first;
  EXPECT_TRUE(workers.routers.started[0].second);
  EXPECT_EQ(request.address, install::parseDottedAddress("10.0.0.5"));
  EXPECT_EQ(request.netmaskBits, 24u);
  EXPECT_EQ(request.baudRate, 9600u);
  EXPECT_EQ(request.files, (Names{"system-6.41.npk", "ppp-6.41.npk"}));
  EXPECT_EQ(presenter->remembered().address, install::parseDottedAddress("10.0.0.5"));
  EXPECT_EQ(presenter->remembered().gateway, install::parseDottedAddress("10.0.0.1"));
  EXPECT_EQ(presenter->remembered().baudRate, 9600u);
  EXPECT_TRUE(presenter->sets().contains("Previous Install"));
  ASSERT_FALSE(view.routerRows.empty());
  EXPECT_EQ(view.routerRows[0].status, "Installing");
  EXPECT_EQ(view.texts[kIdCaption], "Sending offer...");
  EXPECT_FALSE(view.isEnabled(kIdInstall));
  EXPECT_EQ(view.packageStates(), (std::vector<int>{4, 4, 3}));
}

TEST_F(CommandsTest, InstallListsPreviousInstallForRoutersFoundLater) {
  presenter->onPackageClick(kSystem);
  click(kIdInstall);
  EXPECT_EQ(view.items[kIdSets], Names{"Previous Install"});
  discover(announced(2, "R2"));
  selectRow(macOf(2));
  EXPECT_EQ(view.selectedText(kIdSets), "Previous Install");
  EXPECT_FALSE(view.isEnabled(kIdSaveSet));
  EXPECT_TRUE(view.isEnabled(kIdDeleteSet));
  EXPECT_EQ(record(macOf(2)).files, Names{"system-6.41.npk"});
  // A second install does not list it twice.
  click(kIdInstall);
  EXPECT_EQ(view.items[kIdSets], Names{"Previous Install"});
}

TEST_F(CommandsTest, InstallWithAnExistingScriptGoesAhead) {
  presenter->onPackageClick(kSystem);
  std::string script = folder.file("conf.rsc");
  { std::ofstream(script) << "/system identity set name=x\n"; }
  workers.files.insert(script);
  check(kIdScript, true);
  view.texts[kIdScriptPath] = script;
  click(kIdScript);
  click(kIdInstall);
  EXPECT_TRUE(view.boxes.empty());
  ASSERT_EQ(workers.routers.started.size(), 1u);
  EXPECT_EQ(presenter->remembered().scriptPath, script);
  EXPECT_TRUE(presenter->remembered().scriptEnabled);
}

TEST_F(CommandsTest, InstallOfADriveGoesToTheDriveInstaller) {
  workers.drives.drives = {drive('E')};
  presenter->desk().addDrives();
  presenter->refreshRouterList();
  selectRow(drive('E').mac);
  ASSERT_NE(presenter->selectedRouter(), nullptr);
  ASSERT_EQ(presenter->selectedRouter()->kind, install::kKindDrive);
  presenter->onPackageClick(kSystem);
  click(kIdInstall);
  ASSERT_EQ(workers.drives.started.size(), 1u);
  EXPECT_TRUE(workers.routers.started.empty());
  EXPECT_EQ(record(drive('E').mac).status, install::kStatusInstalling);
  EXPECT_EQ(record(drive('E').mac).statusText, "Preparing for installation...");
}

// A drive that may not be erased: the reason in an "Error" box, nothing
// starts, the row stays ready.
TEST_F(CommandsTest, InstallOfADriveThatMayNotBeErasedIsRefusedWithTheReason) {
  workers.drives.drives = {drive('D')};
  workers.drives.refusals[drive('D').mac] =
      "D: cannot be erased: physical disk 0 holds it together with C: (the system volume)";
  presenter->desk().addDrives();
  presenter->refreshRouterList();
  selectRow(drive('D').mac);
  presenter->onPackageClick(kSystem);
  click(kIdInstall);
  ASSERT_EQ(view.boxes.size(), 1u);
  EXPECT_EQ(view.boxes[0].text, "D: cannot be erased: physical disk 0 holds it together with C: (the system volume)");
  EXPECT_EQ(view.boxes[0].caption, "Error");
  EXPECT_TRUE(workers.drives.started.empty());
  EXPECT_EQ(record(drive('D').mac).status, install::kStatusReady);
  EXPECT_TRUE(view.isEnabled(kIdInstall));
}

// ---- 1024 ------------------------------------------------------------------------

TEST_F(CommandsTest, CancelDropsANetworkRouterAndItsSession) {
  click(kIdCancel);
  EXPECT_EQ(workers.routers.calls, Names{"remove"});
  EXPECT_EQ(presenter->table().find(macOf(1)), nullptr);
  EXPECT_TRUE(view.routerRows.empty());
  EXPECT_FALSE(view.isEnabled(kIdCancel));
}

TEST_F(CommandsTest, CancelOfADriveResetsItToReadyWithTheRememberedDefaults) {
  workers.drives.drives = {drive('E')};
  presenter->desk().addDrives();
  presenter->refreshRouterList();
  net::MacAddress mac = drive('E').mac;
  presenter->table().setStatus(mac, install::kStatusInstalling, 100, 40, "Copying file: x");
  presenter->remembered().baudRate = 57600;
  presenter->remembered().scriptEnabled = true;
  presenter->remembered().scriptPath = "C:\\c.rsc";
  presenter->remembered().modeScriptEnabled = true;
  presenter->remembered().modeScriptPath = "C:\\m.rsc";
  presenter->sets().rememberPreviousInstall({"", folder.path(), {"system-6.41.npk"}});
  selectRow(mac);
  click(kIdCancel);
  EXPECT_EQ(workers.drives.cancelled, std::vector<net::MacAddress>{mac});
  const install::RouterRecord& d = record(mac);
  EXPECT_EQ(d.status, install::kStatusReady);
  EXPECT_EQ(d.statusText, "");
  EXPECT_EQ(d.baudRate, 57600u);
  EXPECT_TRUE(d.scriptEnabled);
  EXPECT_EQ(d.scriptPath, "C:\\c.rsc");
  EXPECT_EQ(d.modeScriptPath, "C:\\m.rsc");
  EXPECT_EQ(d.setName, "Previous Install");
  EXPECT_EQ(d.files, Names{"system-6.41.npk"});
}

// ---- option commands -------------------------------------------------------------

TEST_F(CommandsTest, KeepConfigTakesTheCheckState) {
  check(kIdKeepConfig, true);
  EXPECT_TRUE(r1().keepConfig);
  EXPECT_TRUE(view.readOnly[kIdAddress]);
  check(kIdKeepConfig, false);
  EXPECT_FALSE(r1().keepConfig);
  EXPECT_FALSE(view.readOnly[kIdAddress]);
}

TEST_F(CommandsTest, ConfigureScriptTakesTheFieldsFlagAndPath) {
  view.texts[kIdAddress] = "192.168.88.2";
  view.texts[kIdNetmask] = "24";
  view.texts[kIdGateway] = "192.168.88.1";
  view.texts[kIdScriptPath] = "C:\\conf.rsc";
  check(kIdScript, true);
  EXPECT_TRUE(r1().scriptEnabled);
  EXPECT_EQ(r1().scriptPath, "C:\\conf.rsc");
  EXPECT_EQ(r1().address, install::parseDottedAddress("192.168.88.2"));
  EXPECT_EQ(r1().netmaskBits, 24u);
  EXPECT_EQ(r1().gateway, install::parseDottedAddress("192.168.88.1"));
  EXPECT_TRUE(view.isEnabled(kIdScriptPath));
}

TEST_F(CommandsTest, ScriptBrowseStoresTheChosenPath) {
  check(kIdScript, true);
  view.scriptAnswer = true;
  view.scriptPath = "C:\\chosen.rsc";
  click(kIdScriptBrowse);
  EXPECT_EQ(view.scriptDialogs, 1);
  EXPECT_EQ(r1().scriptPath, "C:\\chosen.rsc");
  EXPECT_EQ(view.texts[kIdScriptPath], "C:\\chosen.rsc");
  EXPECT_TRUE(log.contains("selected: C:\\chosen.rsc\n"));
  view.scriptAnswer = false;
  click(kIdScriptBrowse);
  EXPECT_EQ(r1().scriptPath, "C:\\chosen.rsc");
}

TEST_F(CommandsTest, ModeScriptBrowseStoresTheModePath) {
  check(kIdModeScript, true);
  view.scriptAnswer = true;
  view.scriptPath = "C:\\mode.rsc";
  click(kIdModeScriptBrowse);
  EXPECT_EQ(r1().modeScriptPath, "C:\\mode.rsc");
  EXPECT_EQ(r1().scriptPath, "");
}

TEST_F(CommandsTest, DefaultConfigKeepBrandingAndModeScriptTakeTheirCheckStates) {
  check(kIdDefaultConfig, true);
  EXPECT_TRUE(r1().defaultConfig);
  check(kIdDefaultConfig, false);
  check(kIdKeepBranding, false);
  EXPECT_FALSE(r1().keepBranding);
  view.texts[kIdModeScriptPath] = "C:\\m.rsc";
  check(kIdModeScript, true);
  EXPECT_TRUE(r1().modeScriptEnabled);
  EXPECT_EQ(r1().modeScriptPath, "C:\\m.rsc");
}

// ---- other notifications -------------------------------------------------------

TEST_F(CommandsTest, BaudSelectionIsReadFromTheItemText) {
  view.pick(kIdBaud, "115200");
  presenter->onCommand(kIdBaud, kNotifySelChange);
  EXPECT_EQ(r1().baudRate, 115200u);
  EXPECT_TRUE(log.contains("baud: 115200\n"));
  view.pick(kIdBaud, "don't set");
  presenter->onCommand(kIdBaud, kNotifySelChange);
  EXPECT_EQ(r1().baudRate, 0u);
  EXPECT_TRUE(log.contains("baud: 0\n"));
}

TEST_F(CommandsTest, ThePackageDirectoryIsReadWhenItsFieldLosesFocus) {
  ScratchFolder other;
  view.texts[kIdPackageDir] = other.path();
  presenter->onCommand(kIdPackageDir, kNotifyKillFocus);
  EXPECT_EQ(presenter->catalogue().folder(), other.path());
  EXPECT_EQ(r1().packageDir, other.path());
  EXPECT_TRUE(view.packageRows.empty());
  // The same text again changes nothing: no new scan of the folder.
  auto scans = [this] {
    const std::string text = log.text();
    size_t count = 0;
    for (size_t at = text.find("Looking for packages in "); at != std::string::npos;
         at = text.find("Looking for packages in ", at + 1)) {
      ++count;
    }
    return count;
  };
  const size_t scansBefore = scans();
  ASSERT_GT(scansBefore, 0u);
  presenter->onCommand(kIdPackageDir, kNotifyKillFocus);
  EXPECT_EQ(presenter->catalogue().folder(), other.path());
  EXPECT_EQ(scans(), scansBefore);
}

TEST_F(CommandsTest, SpaceOnThePackageListTogglesTheFocusedRowAndAsksForItsDescription) {
  view.focusedPackage = kSystem;
  view.posted.clear();
  presenter->onPackageKey(kSpaceKey);
  EXPECT_EQ(view.posted, std::vector<uint32_t>{kPackageHintCode});
  EXPECT_EQ(r1().files, Names{"system-6.41.npk"});
  presenter->onPackageKey(0x28);  // another key: no toggle
  EXPECT_EQ(r1().files, Names{"system-6.41.npk"});
  presenter->onPrivateMessage(kPackageHintCode);
  EXPECT_EQ(view.statusText, "system depends on nothing");
}

TEST_F(CommandsTest, ClickingAPackageTogglesItWithItsDependenciesAndDescribesIt) {
  presenter->onPackageClick(kPpp);
  EXPECT_EQ(r1().files, (Names{"ppp-6.41.npk", "system-6.41.npk"}));
  EXPECT_EQ(view.packageStates(), (std::vector<int>{1, 1, 3}));
  EXPECT_EQ(view.texts[kIdCaption], "Selected 2 package(s)");
  EXPECT_EQ(view.statusText, "ppp depends on system (6.0 - any)");
  presenter->onPackageClick(-1);  // a click beside the rows
  EXPECT_EQ(r1().files.size(), 2u);
}

TEST_F(CommandsTest, PackagesCannotBeToggledWhileTheRouterIsBusyOrForAMissingDependency) {
  presenter->onPackageClick(kWifi);
  EXPECT_TRUE(r1().files.empty());
  for (uint32_t status : {install::kStatusInstalling, install::kStatusWaitingReboot, install::kStatusNone}) {
    presenter->table().setStatus(macOf(1), status, 0, 0, "");
    presenter->onPrivateMessage(kRefreshCode);
    presenter->onPackageClick(kSystem);
    EXPECT_TRUE(r1().files.empty()) << status;
  }
}

TEST_F(CommandsTest, PrivateMessagesWithOtherCodesAreIgnored) {
  view.statusText = "unchanged";
  presenter->onPrivateMessage(0xABCDEF02u);
  presenter->onPrivateMessage(0);
  EXPECT_EQ(view.statusText, "unchanged");
}

TEST_F(CommandsTest, ADroppedFolderBecomesThePackageDirectory) {
  ScratchFolder other;
  workers.dirs.insert(other.path());
  presenter->onFilesDropped({other.path(), "C:\\not-a-folder.txt"});
  EXPECT_TRUE(log.contains("drop file: " + other.path() + "\n"));
  EXPECT_TRUE(log.contains("drop file: C:\\not-a-folder.txt\n"));
  EXPECT_EQ(presenter->catalogue().folder(), other.path());
  EXPECT_EQ(view.texts[kIdPackageDir], other.path());
}

TEST_F(CommandsTest, ThePackageListShowsTheSelectedRoutersFolderAndArchitecture) {
  ScratchFolder other;
  discover(announced(2, "R2"));
  record(macOf(2)).packageDir = other.path();
  selectRow(macOf(2));
  EXPECT_EQ(presenter->catalogue().folder(), other.path());
  EXPECT_EQ(view.texts[kIdPackageDir], other.path());
  selectRow(macOf(1));
  EXPECT_EQ(presenter->catalogue().folder(), folder.path());
  EXPECT_EQ(presenter->catalogue().architectureCode(), 2u);
  selectNone();
  EXPECT_EQ(view.packageStates(), (std::vector<int>{0, 0, 3}));
}

}  // namespace
}  // namespace tarnlift::ui
