// "Load inventory…": the file dialog, a refused file, and the sections laid
// over the routers already listed and the ones that appear later.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "install/install_datagram.h"
#include "tests/packages/package_test_support.h"
#include "tests/ui/presenter_fixture.h"
#include "tools/mkpkg/package_writer.h"

namespace tarnlift::ui {
namespace {

using packages::testing::ScratchFolder;
using packages::testing::v;
using testing::announced;
using testing::macOf;
using testing::PresenterTest;

// A mipsel folder: ppp needs system.
void writePppAndSystem(const ScratchFolder& folder) {
  auto write = [&](const std::string& file, const std::string& name,
                   const std::vector<mkpkg::DependencyEntry>& dependencies) {
    mkpkg::PackageWriter writer;
    writer.package(name, v("6.41")).architecture("mipsel");
    if (!dependencies.empty()) writer.dependencies(dependencies);
    folder.write(file, writer);
  };
  write("ppp-6.41.npk", "ppp", {{"system", v("6.0"), 0}});
  write("system-6.41.npk", "system", {});
}

void writeText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

bool has(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

class InventoryTest : public PresenterTest {
 protected:
  void SetUp() override {
    PresenterTest::SetUp();
    writePppAndSystem(packagesFolder);
    settings().writeString("Package Path", packagesFolder.path());
    writeText(files.file("office.rsc"), "/system identity set name=office\n");
    inventoryPath = files.file("fleet.ini");
    writeText(inventoryPath,
              "# two of the routers\n"
              "[02:00:00:00:00:01]\n"
              "label = Front desk\n"
              "address = 10.0.0.5/24\n"
              "gateway = 10.0.0.1\n"
              "script = office.rsc\n"
              "select = ppp-6.41.npk\n"
              "keep-config = yes\n"
              "keep-branding = no\n"
              "\n"
              "[02:00:00:00:00:02]\n"
              "address = 10.0.0.6/16\n"
              "after = shutdown\n");
    start();
  }

  // "Load inventory…" answered with `path`.
  void load(const std::string& path) {
    view.inventoryAnswer = true;
    view.inventoryPath = path;
    click(kIdLoadInventory);
  }

  ScratchFolder packagesFolder;
  ScratchFolder files;
  std::string inventoryPath;
};

TEST_F(InventoryTest, ARouterListedAlreadyTakesItsSectionAndShowsIt) {
  discover(announced(1, "R1"));
  selectRow(macOf(1));
  EXPECT_EQ(view.texts[kIdAddress], "");
  load(inventoryPath);
  EXPECT_EQ(view.inventoryDialogs, 1);
  EXPECT_TRUE(view.boxes.empty());
  EXPECT_EQ(view.texts[kIdAddress], "10.0.0.5");
  EXPECT_EQ(view.texts[kIdNetmask], "24");
  EXPECT_EQ(view.texts[kIdGateway], "10.0.0.1");
  EXPECT_TRUE(view.checked[kIdScript]);
  EXPECT_EQ(view.texts[kIdScriptPath], files.file("office.rsc"));
  EXPECT_TRUE(view.checked[kIdKeepConfig]);
  EXPECT_FALSE(view.checked[kIdKeepBranding]);
  // `select` ticks ppp and what it needs, in the folder the window shows.
  const install::RouterRecord& r = record(macOf(1));
  EXPECT_EQ(r.packageDir, packagesFolder.path());
  EXPECT_EQ(r.files.size(), 2u);
  EXPECT_TRUE(has(r.files, "ppp-6.41.npk"));
  EXPECT_TRUE(has(r.files, "system-6.41.npk"));
  EXPECT_EQ(view.texts[kIdCaption], "Selected 2 package(s)");
}

TEST_F(InventoryTest, ARouterThatAppearsLaterTakesItsSectionAndOthersKeepTheirs) {
  load(inventoryPath);
  discover(announced(2, "R2"));
  discover(announced(3, "R3"));
  selectRow(macOf(2));
  EXPECT_EQ(view.texts[kIdAddress], "10.0.0.6");
  EXPECT_EQ(view.texts[kIdNetmask], "16");
  // What the section leaves out stays the window's own.
  EXPECT_EQ(view.texts[kIdGateway], "");
  EXPECT_FALSE(view.checked[kIdScript]);
  EXPECT_TRUE(record(macOf(2)).files.empty());
  // No section: the window's own values.
  selectRow(macOf(3));
  EXPECT_EQ(view.texts[kIdAddress], "");
  EXPECT_EQ(view.texts[kIdNetmask], "");
}

TEST_F(InventoryTest, ABadFileIsRefusedWithItsLineAndNothingIsApplied) {
  discover(announced(1, "R1"));
  selectRow(macOf(1));
  std::string bad = files.file("bad.ini");
  writeText(bad, "[02:00:00:00:00:01]\naddress = 10.0.0.5/24\ngateway = 10.0.0\n");
  load(bad);
  ASSERT_EQ(view.boxes.size(), 1u);
  EXPECT_EQ(view.boxes[0].caption, "Error");
  EXPECT_EQ(view.boxes[0].icon, MessageIcon::Error);
  EXPECT_EQ(view.boxes[0].text.rfind(bad + ":3: ", 0), 0u) << view.boxes[0].text;
  EXPECT_EQ(view.texts[kIdAddress], "");
  EXPECT_EQ(record(macOf(1)).address, 0u);
  EXPECT_FALSE(presenter->inventory().loaded());
  // A router that appears afterwards takes nothing either.
  discover(announced(2, "R2"));
  EXPECT_EQ(record(macOf(2)).address, 0u);
}

TEST_F(InventoryTest, ABadFileKeepsTheInventoryLoadedBefore) {
  load(inventoryPath);
  std::string bad = files.file("bad.ini");
  writeText(bad, "address = 10.0.0.5/24\n");
  load(bad);
  ASSERT_EQ(view.boxes.size(), 1u);
  EXPECT_EQ(presenter->inventory().path(), inventoryPath);
  discover(announced(2, "R2"));
  EXPECT_EQ(record(macOf(2)).netmaskBits, 16u);
}

TEST_F(InventoryTest, CancellingTheDialogLoadsNothing) {
  view.inventoryAnswer = false;
  click(kIdLoadInventory);
  EXPECT_EQ(view.inventoryDialogs, 1);
  EXPECT_FALSE(presenter->inventory().loaded());
  EXPECT_TRUE(view.boxes.empty());
}

TEST_F(InventoryTest, ABusyRouterIsLeftAsItIs) {
  discover(announced(1, "R1"));
  presenter->table().setStatus(macOf(1), install::kStatusInstalling, 100, 0, "Installing");
  load(inventoryPath);
  EXPECT_EQ(record(macOf(1)).address, 0u);
}

TEST_F(InventoryTest, TheSectionsAfterWinsOverTheAutoRebootListSelectedOrNot) {
  load(inventoryPath);
  discover(announced(2, "R2"));
  discover(announced(3, "R3"));
  view.selection[kIdAutoReboot] = 0;  // "Reboot after installation"
  // R2 (after = shutdown) is not selected; R3 is, and has no section.
  selectRow(macOf(3));
  for (uint8_t last : {2, 3}) {
    presenter->table().setStatus(macOf(last), install::kStatusInstalling, 100, 10, "Installing");
    workers.routers.sessions[macOf(last)] = {install::kStatusWaitingReboot, 100, 100, "Waiting reboot"};
  }
  presenter->onTimer();
  auto& calls = workers.routers.calls;
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "shutdown"), 1);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "reboot"), 1);
  // Once, not on every tick.
  presenter->onTimer();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "shutdown"), 1);
}

TEST_F(InventoryTest, ASetChoosesTheWindowsSavedSetAndTheOtherKeysFillTheirControls) {
  // "Office" is saved in the window: ppp and the system it needs.
  discover(announced(1, "R1"));
  selectRow(macOf(1));
  presenter->onPackageClick(0);
  view.setNameAnswers = {"Office"};
  click(kIdSaveSet);
  ASSERT_TRUE(presenter->sets().contains("Office"));

  writeText(files.file("mode.rsc"), "/x\n");
  std::string path = files.file("sets.ini");
  writeText(path,
            "[02:00:00:00:00:02]\nset = Office\nmode-script = mode.rsc\ndefault-config = yes\n"
            "[02:00:00:00:00:03]\ndefault-config = yes\n");
  load(path);
  ASSERT_TRUE(view.boxes.empty()) << view.boxes[0].text;
  discover(announced(2, "R2"));
  install::RouterRecord protectedBranding = announced(3, "R3");
  protectedBranding.unprotected = false;
  discover(protectedBranding);

  selectRow(macOf(2));
  EXPECT_EQ(record(macOf(2)).setName, "Office");
  EXPECT_TRUE(has(record(macOf(2)).files, "ppp-6.41.npk"));
  EXPECT_EQ(view.selectedText(kIdSets), "Office");
  EXPECT_TRUE(view.checked[kIdModeScript]);
  EXPECT_EQ(view.texts[kIdModeScriptPath], files.file("mode.rsc"));
  // "Apply default config" only where there is a default configuration.
  EXPECT_FALSE(view.checked[kIdDefaultConfig]);
  selectRow(macOf(3));
  EXPECT_TRUE(view.checked[kIdDefaultConfig]);
}

TEST_F(InventoryTest, ASetTheWindowHasNotSavedRefusesTheFile) {
  std::string path = files.file("sets.ini");
  writeText(path, "[02:00:00:00:00:02]\nset = Office\n");
  load(path);
  ASSERT_EQ(view.boxes.size(), 1u);
  EXPECT_EQ(view.boxes[0].text, path + ":2: no package set named 'Office'");
  EXPECT_FALSE(presenter->inventory().loaded());
}

}  // namespace
}  // namespace tarnlift::ui
