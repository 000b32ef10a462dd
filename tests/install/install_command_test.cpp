#include "install/install_command.h"

#include <gtest/gtest.h>

#include "app/registry.h"
#include "fake_transport.h"
#include "install/session.h"
#include "packages/version.h"
#include "temp_dir.h"
#include "tests/install/two_packages.h"
#include "tools/mkpkg/package_writer.h"

namespace tarnlift {
namespace {

using namespace install;

class RecordingPrompter : public InstallPrompter {
 public:
  std::vector<std::string> messages;
  std::vector<std::string> questions;
  bool answer = true;
  void showMessage(const std::string& text, const std::string& title, bool errorIcon) override {
    messages.push_back(title + (errorIcon ? "!" : "") + ":" + text);
  }
  bool askYesNo(const std::string& text) override {
    questions.push_back(text);
    return answer;
  }
};

class InstallCommandTest : public ::testing::Test {
 protected:
  testing::TempDir dir;
  packages::PackageCatalogue catalogue;
  packages::PackageChoice choice;
  packages::PackageSets sets;
  RememberedChoices remembered;
  RecordingPrompter prompter;
  std::vector<RouterRecord> started;
  InstallContext context{catalogue,  choice,   sets,
                         remembered, prompter, [this](const RouterRecord& r) { started.push_back(r); }};
  RouterRecord router;
  // The choices as a front end hands them over, its text read at its edge.
  InstallChoices choices;

  void SetUp() override {
    testing::writeSystemAndExtra(dir, 3000);
    catalogue.setFolder(dir.path(), 6);
    choice.folder = dir.path();
    choice.files = {"extra-6.41.npk", "system-6.41.npk"};
    router.mac = testing::kRouterMac;
    router.architecture = 6;
    router.minVersion = packages::parseVersion("6.40");
    router.version = packages::parseVersion("6.41");
  }
};

TEST_F(InstallCommandTest, NoSelectionDoesNothing) {
  EXPECT_EQ(runInstallCommand(nullptr, choices, context), InstallOutcome::NoSelection);
  EXPECT_TRUE(prompter.messages.empty());
}

TEST_F(InstallCommandTest, StartsWithFilesInInstallOrderAndTotalSize) {
  ASSERT_EQ(runInstallCommand(&router, choices, context), InstallOutcome::Started);
  ASSERT_EQ(started.size(), 1u);
  EXPECT_EQ(started[0].files, (std::vector<std::string>{"system-6.41.npk", "extra-6.41.npk"}));
  EXPECT_EQ(started[0].packageDir, dir.path());
  EXPECT_EQ(started[0].totalSize, catalogue.fileSizeOf("system-6.41.npk") + catalogue.fileSizeOf("extra-6.41.npk"));
  EXPECT_TRUE(sets.contains(packages::kPreviousInstallSet));
}

TEST_F(InstallCommandTest, TooOldInstallerVersionRefused) {
  router.version = packages::parseVersion("6.30");
  EXPECT_EQ(runInstallCommand(&router, choices, context), InstallOutcome::Refused);
  ASSERT_EQ(prompter.messages.size(), 1u);
  EXPECT_EQ(prompter.messages[0], "Error!:tarnlift version 6.30 is too old\nboard supports versions from 6.40");
}

TEST_F(InstallCommandTest, BoardMinimumAbovePackageRefused) {
  router.minVersion = packages::parseVersion("6.45");
  router.version = 0;
  EXPECT_EQ(runInstallCommand(&router, choices, context), InstallOutcome::Refused);
  ASSERT_EQ(prompter.messages.size(), 1u);
  EXPECT_EQ(prompter.messages[0], "Error!:board supports versions from 6.45");
  EXPECT_TRUE(started.empty());
}

TEST_F(InstallCommandTest, NoPackagesRefused) {
  choice.files.clear();
  EXPECT_EQ(runInstallCommand(&router, choices, context), InstallOutcome::Refused);
  EXPECT_EQ(prompter.messages.at(0), "Cannot install!:No packages selected");
}

TEST_F(InstallCommandTest, AddressWithoutNetmaskAsksAndNoStops) {
  choices.address = addressFromText("10.0.0.1");
  prompter.answer = false;
  EXPECT_EQ(runInstallCommand(&router, choices, context), InstallOutcome::Refused);
  EXPECT_EQ(prompter.questions, std::vector<std::string>{kAddressQuestion});
  EXPECT_TRUE(started.empty());
  prompter.answer = true;
  EXPECT_EQ(runInstallCommand(&router, choices, context), InstallOutcome::Started);
}

TEST_F(InstallCommandTest, GatewayWithoutAddressAsks) {
  choices.gateway = addressFromText("10.0.0.254");
  prompter.answer = false;
  EXPECT_EQ(runInstallCommand(&router, choices, context), InstallOutcome::Refused);
  EXPECT_EQ(prompter.questions, std::vector<std::string>{kGatewayQuestion});
}

TEST_F(InstallCommandTest, NetmaskAboveThirtyTwoIsThirtyTwo) {
  EXPECT_EQ(netmaskBitsFromText("40"), 32u);
  EXPECT_EQ(netmaskBitsFromText("24"), 24u);
  EXPECT_EQ(netmaskBitsFromText(""), 0u);
  choices.address = addressFromText("10.0.0.1");
  choices.netmaskBits = netmaskBitsFromText("40");
  ASSERT_EQ(runInstallCommand(&router, choices, context), InstallOutcome::Started);
  EXPECT_EQ(started[0].netmaskBits, 32u);
  EXPECT_TRUE(prompter.questions.empty());
}

// The address fields read text as inet_addr does: short and octal forms too.
TEST_F(InstallCommandTest, AddressFieldsReadEveryInetAddrForm) {
  EXPECT_EQ(dottedAddress(addressFromText("10.1")), "10.0.0.1");
  EXPECT_EQ(dottedAddress(addressFromText("192.168.1")), "192.168.0.1");
  EXPECT_EQ(dottedAddress(addressFromText("010.0.0.1")), "8.0.0.1");
  EXPECT_EQ(dottedAddress(addressFromText("0xa.0.0.0x1")), "10.0.0.1");
  choices.address = addressFromText("10.1");
  choices.gateway = addressFromText("012.0.0.0376");
  ASSERT_EQ(runInstallCommand(&router, choices, context), InstallOutcome::Started);
  EXPECT_EQ(dottedAddress(started[0].address), "10.0.0.1");
  EXPECT_EQ(dottedAddress(started[0].gateway), "10.0.0.254");
}

TEST_F(InstallCommandTest, UnparsableAddressIsZero) {
  EXPECT_EQ(addressFromText("not an address"), 0u);
  EXPECT_EQ(addressFromText(""), 0u);
  EXPECT_EQ(addressFromText("255.255.255.255"), 0u);
  EXPECT_EQ(baudFromText("don't set"), 0u);
  EXPECT_EQ(baudFromText("115200"), 115200u);
}

// A row's choices handed to Install without passing through the window's
// fields (web console, inventory) read as the fields would show and read
// them back: dotted text through inet_addr, the netmask through its field.
TEST(InstallChoicesTest, ChoicesReadAsTheFieldsWouldReadThemBack) {
  const uint32_t kAllOnes = 0xFFFFFFFFu;
  for (uint32_t address : {0u, addressFromText("10.0.0.1"), addressFromText("255.255.255.254"), kAllOnes}) {
    for (uint32_t bits : {0u, 1u, 24u, 32u, 33u, 40u, 0xFFFFFFFFu}) {
      InstallChoices shown;
      shown.address = address;
      shown.gateway = address;
      shown.netmaskBits = bits;
      shown.baudRate = 9600;
      shown.scriptPath = "s.rsc";
      InstallChoices readBack = shown;
      readBack.address = addressFromText(address != 0 ? dottedAddress(address) : "");
      readBack.gateway = addressFromText(address != 0 ? dottedAddress(address) : "");
      readBack.netmaskBits = netmaskBitsFromText(bits != 0 ? std::to_string(bits) : "");
      EXPECT_EQ(asTheControlsReadThem(shown), readBack) << dottedAddress(address) << "/" << bits;
    }
  }
  InstallChoices allOnes;
  allOnes.address = kAllOnes;
  allOnes.netmaskBits = 40;
  EXPECT_EQ(asTheControlsReadThem(allOnes).address, 0u);
  EXPECT_EQ(asTheControlsReadThem(allOnes).netmaskBits, 32u);
}

TEST_F(InstallCommandTest, SpaceWarningOnlyOnce) {
  router.storageSize = 10;
  EXPECT_EQ(runInstallCommand(&router, choices, context), InstallOutcome::Refused);
  EXPECT_EQ(prompter.messages.at(0), "Warning:Not enough space on device");
  EXPECT_TRUE(router.spaceWarned);
  EXPECT_EQ(runInstallCommand(&router, choices, context), InstallOutcome::Started);
  EXPECT_EQ(prompter.messages.size(), 1u);
}

TEST_F(InstallCommandTest, MissingConfigurationScriptRefused) {
  choices.scriptEnabled = true;
  choices.scriptPath = dir.file("nope.rsc");
  EXPECT_EQ(runInstallCommand(&router, choices, context), InstallOutcome::Refused);
  EXPECT_EQ(prompter.messages.at(0), "Error!:Could not read configuration script");
}

TEST_F(InstallCommandTest, ChoicesAreRememberedAndApplied) {
  router.unprotected = false;  // it has a default configuration to remember the choice from
  choices.keepConfig = true;
  choices.address = addressFromText("10.0.0.1");
  choices.netmaskBits = netmaskBitsFromText("8");
  choices.gateway = addressFromText("10.0.0.254");
  choices.baudRate = baudFromText("9600");
  choices.defaultConfig = true;
  choices.modeScriptEnabled = true;
  choices.modeScriptPath = "m.rsc";
  ASSERT_EQ(runInstallCommand(&router, choices, context), InstallOutcome::Started);
  EXPECT_TRUE(remembered.keepConfig);
  EXPECT_EQ(remembered.address, addressFromText("10.0.0.1"));
  EXPECT_EQ(remembered.netmaskBits, 8u);
  EXPECT_EQ(remembered.baudRate, 9600u);
  EXPECT_TRUE(remembered.defaultConfig);
  EXPECT_EQ(remembered.modeScriptPath, "m.rsc");

  app::Registry settings;
  settings.openRoot(app::kSettingsKeyPath, app::kFullAccess, app::makeMemorySettingsStore());
  remembered.save(settings);
  RememberedChoices loaded;
  loaded.load(settings);
  EXPECT_EQ(loaded.netmaskBits, 8u);
  EXPECT_EQ(loaded.gateway, addressFromText("10.0.0.254"));
  EXPECT_EQ(loaded.modeScriptPath, "m.rsc");

  RouterRecord fresh;
  fresh.unprotected = true;
  loaded.defaultConfig = false;
  loaded.applyTo(fresh);
  EXPECT_FALSE(fresh.defaultConfig);
  EXPECT_EQ(fresh.baudRate, 9600u);
  RouterRecord branded;
  branded.unprotected = false;
  loaded.applyTo(branded);
  EXPECT_TRUE(branded.defaultConfig);
  // A router without a default configuration never starts with it applied,
  // even when the last install on a branded router left the choice on: its
  // check box is disabled and would lock the address fields.
  loaded.defaultConfig = true;
  RouterRecord plain;
  plain.unprotected = true;
  loaded.applyTo(plain);
  EXPECT_FALSE(plain.defaultConfig);
}

// The choice is remembered only from a router that has a default
// configuration to apply (protected branding).
TEST_F(InstallCommandTest, DefaultConfigRememberedOnlyFromARouterThatHasOne) {
  router.unprotected = true;
  choices.defaultConfig = true;
  ASSERT_EQ(runInstallCommand(&router, choices, context), InstallOutcome::Started);
  EXPECT_FALSE(remembered.defaultConfig);
  router.unprotected = false;
  ASSERT_EQ(runInstallCommand(&router, choices, context), InstallOutcome::Started);
  EXPECT_TRUE(remembered.defaultConfig);
}

// The request goes on into a session: "keep" in the offer, an empty autorun.
TEST_F(InstallCommandTest, KeepConfigSendsKeepAndEmptyAutorun) {
  testing::FakeTransport transport;
  app::ManualClock clock;
  InstallServer server(transport, clock);
  context.startSession = [&](const RouterRecord& r) { server.start(r, true); };
  choices.keepConfig = true;
  choices.address = addressFromText("10.0.0.1");
  choices.netmaskBits = netmaskBitsFromText("24");
  ASSERT_EQ(runInstallCommand(&router, choices, context), InstallOutcome::Started);
  EXPECT_EQ(transport.lastPayload(), "OFFR\nkeep\n");
  app::MutexLock hold(server.sessionLock());
  std::string autorun = server.session(testing::kRouterMac)->autorunPath();
  ASSERT_FALSE(autorun.empty());
  EXPECT_EQ(testing::readFile(autorun), "");
}

}  // namespace
}  // namespace tarnlift
