// The inventory file: what it accepts, and that every kind of bad line is
// refused with the file and line named and nothing kept.
#include "install/inventory.h"

#include <gtest/gtest.h>

#include "temp_dir.h"

namespace tarnlift {
namespace {

using namespace install;

const MacAddress kFirst{0x4C, 0x5E, 0x0C, 0x01, 0x02, 0x03};

bool onlyOffice(const std::string& name) { return name == "office"; }

TEST(InventoryTest, ReadsEveryKeyOfASection) {
  testing::TempDir dir;
  dir.write("user.rsc", "/system identity set name=a\n");
  dir.write("mode.rsc", "x\n");
  std::string path = dir.write("fleet.ini",
                               "# the office\n"
                               "[4c:5e:0c:01:02:03]\n"
                               "label = Front \"desk\"\n"
                               "address = 10.0.0.5/24\n"
                               "gateway = 10.0.0.1\n"
                               "script = user.rsc\n"
                               "mode-script = mode.rsc\n"
                               "select = a.npk, b.npk\n"
                               "keep-config = yes\n"
                               "default-config = no\n"
                               "keep-branding = no\n"
                               "after = shutdown\n"
                               "\n"
                               "[4C:5E:0C:01:02:04]\n"
                               "set = office\n");
  Inventory inventory;
  std::string error;
  ASSERT_TRUE(inventory.load(path, onlyOffice, error)) << error;
  ASSERT_EQ(inventory.size(), 2u);
  const InventoryEntry* e = inventory.find(kFirst);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->line, 2);
  EXPECT_EQ(*e->label, "Front \"desk\"");
  // Every key of the choices, given and read into its value.
  const GivenChoices& c = e->choices;
  EXPECT_EQ(c.keys, GivenChoices::kAddress | GivenChoices::kGateway | GivenChoices::kScript | GivenChoices::kModeScript |
                        GivenChoices::kKeepConfig | GivenChoices::kDefaultConfig | GivenChoices::kKeepBranding);
  EXPECT_EQ(dottedAddress(c.values.address), "10.0.0.5");
  EXPECT_EQ(c.values.netmaskBits, 24u);
  EXPECT_EQ(dottedAddress(c.values.gateway), "10.0.0.1");
  EXPECT_EQ(c.values.scriptPath, dir.file("user.rsc"));
  EXPECT_EQ(c.values.modeScriptPath, dir.file("mode.rsc"));
  EXPECT_EQ(*e->select, (std::vector<std::string>{"a.npk", "b.npk"}));
  EXPECT_TRUE(c.values.keepConfig);
  EXPECT_FALSE(c.values.defaultConfig);
  EXPECT_FALSE(c.values.keepBranding);
  EXPECT_EQ(*e->after, AfterInstall::Shutdown);
  EXPECT_FALSE(e->setName.has_value());
  const InventoryEntry* second = inventory.find({0x4C, 0x5E, 0x0C, 0x01, 0x02, 0x04});
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(*second->setName, "office");
  EXPECT_FALSE(second->choices.gives(GivenChoices::kAddress));
  EXPECT_FALSE(inventory.contains({0x4C, 0x5E, 0x0C, 0x01, 0x02, 0x05}));
}

struct BadCase {
  const char* line;
  const char* message;
};

TEST(InventoryTest, EveryKindOfBadLineIsRefusedWithFileAndLine) {
  const BadCase cases[] = {
      {"[4C:5E:0C:01:02]", "is not a MAC"},
      {"[4C:5E:0C:01:02:03", "a section is [MAC]"},
      {"address = 10.0.0/24", "bad address"},
      {"address = 10.0.0.5", "bad address"},
      {"address = 10.0.0.5/33", "bad address"},
      {"address = 10.0.0.256/24", "bad address"},
      {"gateway = gw", "bad gateway"},
      {"script = missing.rsc", "cannot read the script file"},
      {"mode-script = missing.rsc", "cannot read the mode-script file"},
      {"set = nosuchset", "no package set named 'nosuchset'"},
      {"select = ,", "select needs"},
      {"keep-config = maybe", "keep-config needs yes or no"},
      {"after = later", "after needs reboot"},
      {"colour = red", "unknown key 'colour'"},
      {"just words", "expected key = value"},
      {"[4C:5E:0C:01:02:03]", "already listed on line 2"},
  };
  testing::TempDir dir;
  for (const BadCase& c : cases) {
    std::string path = dir.write("bad.ini", std::string("# fleet\n[4C:5E:0C:01:02:03]\nlabel = ok\n") + c.line + "\n");
    Inventory inventory;
    std::string error;
    EXPECT_FALSE(inventory.load(path, onlyOffice, error)) << c.line;
    EXPECT_EQ(error.rfind(path + ":4: ", 0), 0u) << c.line << " -> " << error;
    EXPECT_NE(error.find(c.message), std::string::npos) << c.line << " -> " << error;
    EXPECT_EQ(inventory.size(), 0u) << "half applied after " << c.line;
  }
}

TEST(InventoryTest, ValueBeforeAnySectionAndSetWithSelectAreRefused) {
  Inventory inventory;
  std::string error;
  EXPECT_FALSE(inventory.parse("address = 10.0.0.5/24\n", "f", "", nullptr, error));
  EXPECT_EQ(error, "f:1: a value before the first [MAC] section");
  EXPECT_FALSE(inventory.parse("[02:00:00:00:00:01]\nset = a\nselect = b.npk\n", "f", "", nullptr, error));
  EXPECT_EQ(error, "f:3: set and select exclude each other");
}

TEST(InventoryTest, MissingFileIsNamed) {
  Inventory inventory;
  std::string error;
  EXPECT_FALSE(inventory.load("/nonexistent/fleet.ini", nullptr, error));
  EXPECT_EQ(error, "/nonexistent/fleet.ini: cannot read the inventory");
}

// The one merge both front ends use: given keys win, the rest stays, and
// set and select replace each other.
TEST(InventoryTest, ASectionIsLaidOverTheOptionsItLeavesOutUntouched) {
  Inventory inventory;
  std::string error;
  ASSERT_TRUE(inventory.parse("[02:00:00:00:00:01]\naddress = 10.0.0.5/24\nkeep-branding = no\nselect = a.npk\n"
                              "[02:00:00:00:00:02]\ngateway = 10.0.0.1\nset = office\n",
                              "f", "", nullptr, error))
      << error;
  InstallChoices base;
  base.address = parseDottedAddress("192.168.1.9");
  base.netmaskBits = 16;
  base.gateway = parseDottedAddress("192.168.1.1");
  base.keepConfig = true;
  base.scriptEnabled = true;
  base.scriptPath = "base.rsc";

  InstallChoices first = base;
  std::string setName = "base set";
  std::vector<std::string> select;
  applyInventoryEntry(*inventory.find({2, 0, 0, 0, 0, 1}), first, setName, select);
  EXPECT_EQ(dottedAddress(first.address), "10.0.0.5");
  EXPECT_EQ(first.netmaskBits, 24u);
  EXPECT_EQ(dottedAddress(first.gateway), "192.168.1.1");
  EXPECT_FALSE(first.keepBranding);
  EXPECT_TRUE(first.keepConfig);
  EXPECT_TRUE(first.scriptEnabled);
  EXPECT_EQ(first.scriptPath, "base.rsc");
  EXPECT_EQ(setName, "");
  EXPECT_EQ(select, std::vector<std::string>{"a.npk"});

  InstallChoices second = base;
  setName.clear();
  select = {"b.npk"};
  applyInventoryEntry(*inventory.find({2, 0, 0, 0, 0, 2}), second, setName, select);
  EXPECT_EQ(dottedAddress(second.address), "192.168.1.9");
  EXPECT_EQ(dottedAddress(second.gateway), "10.0.0.1");
  EXPECT_EQ(setName, "office");
  EXPECT_TRUE(select.empty());
}

}  // namespace
}  // namespace tarnlift
