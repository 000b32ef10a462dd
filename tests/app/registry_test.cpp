#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "app/atomic_file.h"
#include "app/registry.h"
#include "app/settings_file.h"
#include "tests/app/capture_log.h"

namespace tarnlift {
namespace {

using namespace app;

namespace fs = std::filesystem;

std::string uniqueSuffix() { return std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()); }

fs::path freshDirectory() {
  fs::path dir = fs::temp_directory_path() / ("tarnlift-registry-" + uniqueSuffix());
  fs::create_directories(dir);
  return dir;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The same contract holds for every store: memory, the settings file, and
// the platform's own (the real registry on Windows).
enum class StoreKind { Memory, File, Platform };

class RegistryContract : public ::testing::TestWithParam<StoreKind> {
 protected:
  void SetUp() override {
    path_ = std::string("SOFTWARE\\Quenlark\\TarnliftTest") + uniqueSuffix();
    switch (GetParam()) {
      case StoreKind::Memory:
        store_ = makeMemorySettingsStore();
        break;
      case StoreKind::File:
        dir_ = freshDirectory();
        store_ = makeFileSettingsStore((dir_ / "settings.reg").string());
        break;
      case StoreKind::Platform:
#ifndef _WIN32
        GTEST_SKIP() << "the platform store on Linux is the settings file";
#endif
        store_ = platformSettingsStore();
        break;
    }
    key_.openRoot(path_, kFullAccess, store_);
  }

  void TearDown() override {
    if (GetParam() == StoreKind::Platform && key_.isOpen()) {
      std::string name;
      while (key_.enumSubKey(0, name)) {
        Registry child;
        child.openSubKey(key_, name);
        std::string grandchild;
        while (child.enumSubKey(0, grandchild)) child.deleteSubKey(grandchild);
        child.close();
        key_.deleteSubKey(name);
      }
      key_.close();
      Registry parent;
      parent.openRoot("SOFTWARE\\Quenlark", kFullAccess, store_);
      parent.deleteSubKey(path_.substr(path_.rfind('\\') + 1));
    }
    if (!dir_.empty()) fs::remove_all(dir_);
  }

  std::shared_ptr<SettingsStore> store_;
  Registry key_;
  std::string path_;
  fs::path dir_;
};

TEST_P(RegistryContract, MissingValuesGiveTheDefaults) {
  EXPECT_EQ(key_.readInt("Rect X", 20), 20u);
  EXPECT_EQ(key_.readString("Package Path", "C:\\here"), "C:\\here");
  std::list<std::string> list = {"kept"};
  key_.readMultiString("Nothing", list);
  EXPECT_EQ(list, std::list<std::string>{"kept"});
  char buffer[8];
  EXPECT_EQ(key_.readBinary("Nothing", buffer, sizeof buffer), 0u);
  EXPECT_EQ(key_.valueSize("Nothing"), 0u);
}

TEST_P(RegistryContract, ValuesRoundTripWithTheirTypes) {
  key_.writeInt("Rect X", 0xDEADBEEF);
  key_.writeString("Package Path", "C:\\pkgs");
  key_.writeMultiString("Set", {"a.npk", "", "b.npk"});
  const unsigned char bytes[] = {0, 1, 2, 255};
  key_.writeBinary("Blob", bytes, sizeof bytes);
  EXPECT_EQ(key_.readInt("Rect X", 0), 0xDEADBEEFu);
  EXPECT_EQ(key_.readString("Package Path", ""), "C:\\pkgs");
  EXPECT_EQ(key_.valueSize("Package Path"), 8u);  // with its terminating zero
  std::list<std::string> list;
  key_.readMultiString("Set", list);
  EXPECT_EQ(list, (std::list<std::string>{"a.npk", "", "b.npk"}));
  unsigned char back[4] = {};
  EXPECT_EQ(key_.readBinary("Blob", back, sizeof back), 4u);
  EXPECT_EQ(std::vector<unsigned char>(back, back + 4), std::vector<unsigned char>(bytes, bytes + 4));
  EXPECT_EQ(key_.valueType("Rect X"), ValueType::Integer);
  EXPECT_EQ(key_.valueType("Package Path"), ValueType::String);
  EXPECT_EQ(key_.valueType("Set"), ValueType::MultiString);
  EXPECT_EQ(key_.valueType("Blob"), ValueType::Binary);
}

TEST_P(RegistryContract, EmptyListIsStoredAsOneZeroByte) {
  key_.writeMultiString("Empty", {});
  EXPECT_EQ(key_.valueSize("Empty"), 1u);
  unsigned char stored[4] = {9, 9, 9, 9};
  EXPECT_EQ(key_.readBinary("Empty", stored, sizeof stored), 1u);
  EXPECT_EQ(stored[0], 0);
  std::list<std::string> list = {"stale"};
  key_.readMultiString("Empty", list);
  EXPECT_TRUE(list.empty());
}

TEST_P(RegistryContract, ValueNamesIgnoreCase) {
  key_.writeInt("Previous NetMask", 24);
  EXPECT_EQ(key_.readInt("Previous Netmask", 0), 24u);
  key_.writeInt("previous netmask", 16);
  EXPECT_EQ(key_.readInt("Previous NetMask", 0), 16u);
  ValueType type{};
  std::string name;
  EXPECT_TRUE(key_.enumValue(0, type, name));
  EXPECT_FALSE(key_.enumValue(1, type, name));  // still one value
}

TEST_P(RegistryContract, IntegerReadsAtMostFourBytes) {
  const unsigned char eight[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  key_.writeBinary("Too Big", eight, sizeof eight);
  EXPECT_EQ(key_.readInt("Too Big", 77), 77u);
  const unsigned char two[2] = {0x34, 0x12};
  key_.writeBinary("Short", two, sizeof two);
  EXPECT_EQ(key_.readInt("Short", 77), 0x1234u);
}

TEST_P(RegistryContract, StringsOfTheScratchSizeOrMoreGiveTheDefault) {
  key_.writeString("Long", std::string(5000, 'x'));
  EXPECT_EQ(key_.readString("Long", "dflt"), "dflt");
  std::list<std::string> list = {"kept"};
  key_.writeMultiString("LongList", {std::string(4095, 'y')});
  key_.readMultiString("LongList", list);
  EXPECT_EQ(list, std::list<std::string>{"kept"});
}

TEST_P(RegistryContract, SubKeysEnumerateAndEndWithFalse) {
  Registry sets;
  sets.openSubKey(key_, "Package Sets");
  for (const char* name : {"beta", "Alpha", "gamma"}) {
    Registry set;
    set.openSubKey(sets, name);
    set.writeInt("x", 1);
  }
  std::vector<std::string> names;
  std::string name;
  for (uint32_t index = 0; sets.enumSubKey(index, name); ++index) names.push_back(name);
  EXPECT_EQ(names.size(), 3u);
  EXPECT_FALSE(sets.enumSubKey(3, name));
  EXPECT_FALSE(sets.enumSubKey(100, name));
  EXPECT_EQ(sets.deleteSubKey("BETA"), 0u);  // names ignore case here too
  EXPECT_NE(sets.deleteSubKey("missing"), 0u);
  uint32_t count = 0;
  while (sets.enumSubKey(count, name)) ++count;
  EXPECT_EQ(count, 2u);
}

TEST_P(RegistryContract, DeletingAValueLeavesTheOthers) {
  key_.writeInt("One", 1);
  key_.writeString("Two", "2");
  EXPECT_EQ(key_.deleteValue("ONE"), 0u);
  EXPECT_EQ(key_.readInt("One", 77), 77u);
  EXPECT_EQ(key_.readString("Two", ""), "2");
  EXPECT_NE(key_.deleteValue("One"), 0u);  // gone: reported, not fatal
}

TEST_P(RegistryContract, OpeningAgainSeesWhatWasWritten) {
  key_.writeString("PXE Client Address", "kept");
  key_.close();
  Registry again;
  again.openRoot(path_, kFullAccess, store_);
  EXPECT_EQ(again.readString("PXE Client Address", ""), "kept");
  again.close();
  key_.openRoot(path_, kFullAccess, store_);
}

INSTANTIATE_TEST_SUITE_P(Stores, RegistryContract,
                         ::testing::Values(StoreKind::Memory, StoreKind::File, StoreKind::Platform),
                         [](const ::testing::TestParamInfo<StoreKind>& param) {
                           switch (param.param) {
                             case StoreKind::Memory:
                               return std::string("Memory");
                             case StoreKind::File:
                               return std::string("File");
                             default:
                               return std::string("Platform");
                           }
                         });

TEST(RegistryDeathTest, TypeOfAMissingValueIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        testing::fatalToStderr();
        Registry key;
        key.openRoot("X", kFullAccess, makeMemorySettingsStore());
        key.valueType("absent");
      },
      ::testing::ExitedWithCode(1), "Registry::getType RegQueryValueEx");
}

TEST(SettingsFile, SurvivesAnotherProcessLifetime) {
  fs::path dir = freshDirectory();
  std::string file = (dir / "settings.reg").string();
  {
    Registry key;
    key.openRoot(kSettingsKeyPath, kFullAccess, makeFileSettingsStore(file));
    key.writeInt("Previous NetMask", 24);
    key.writeString("Package Path", "/srv/pkgs \"quoted\" \\ \x01");
    key.writeMultiString("Set", {"a", "b"});
    Registry sub;
    sub.openSubKey(key, "Package Sets");
  }
  Registry key;
  key.openRoot(kSettingsKeyPath, kFullAccess, makeFileSettingsStore(file));
  EXPECT_EQ(key.readInt("Previous Netmask", 0), 24u);
  EXPECT_EQ(key.readString("Package Path", ""), "/srv/pkgs \"quoted\" \\ \x01");
  std::list<std::string> list;
  key.readMultiString("Set", list);
  EXPECT_EQ(list, (std::list<std::string>{"a", "b"}));
  std::string name;
  EXPECT_TRUE(key.enumSubKey(0, name));
  EXPECT_EQ(name, "Package Sets");
  // Nothing but the settings file is left behind.
  int files = 0;
  for (const auto& entry : fs::directory_iterator(dir)) {
    (void)entry;
    ++files;
  }
  EXPECT_EQ(files, 1);
  fs::remove_all(dir);
}

TEST(SettingsFile, CorruptFileIsKeptAsideAndTheStoreStartsEmpty) {
  testing::CapturedLog log;
  fs::path dir = freshDirectory();
  fs::path file = dir / "settings.reg";
  { std::ofstream(file) << "[SOFTWARE\\Quenlark\\NetServer]\nthis is not a value\n"; }
  Registry key;
  key.openRoot(kSettingsKeyPath, kFullAccess, makeFileSettingsStore(file.string()));
  EXPECT_EQ(key.readInt("Rect X", 20), 20u);
  EXPECT_TRUE(log.contains("settings: cannot read "));
  bool keptAside = false;
  for (const auto& entry : fs::directory_iterator(dir)) {
    if (entry.path().filename().string().rfind("settings.reg.unreadable-", 0) == 0) {
      keptAside = readFile(entry.path()).find("this is not a value") != std::string::npos;
    }
  }
  EXPECT_TRUE(keptAside);
  key.writeInt("Rect X", 30);
  EXPECT_NE(readFile(file).find("\"Rect X\"=dword:0000001e"), std::string::npos);
  fs::remove_all(dir);
}

TEST(SettingsFile, FailedReplacementLeavesThePreviousFileWhole) {
  fs::path dir = freshDirectory();
  fs::path file = dir / "settings.reg";
  ASSERT_EQ(replaceFileAtomically(file.string(), "old settings\n"), 0u);
  // A directory where the temporary file would go makes the write fail.
  fs::create_directories(temporaryPathFor(file.string()));
  EXPECT_NE(replaceFileAtomically(file.string(), "new"), 0u);
  EXPECT_EQ(readFile(file), "old settings\n");
  fs::remove_all(temporaryPathFor(file.string()));
  EXPECT_EQ(replaceFileAtomically(file.string(), "new settings\n"), 0u);
  EXPECT_EQ(readFile(file), "new settings\n");
  fs::remove_all(dir);
}

TEST(SettingsFileDeathTest, WriteThatCannotBeSavedIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  fs::path dir = freshDirectory();
  fs::path notADirectory = dir / "plain";
  { std::ofstream(notADirectory) << "x"; }
  EXPECT_EXIT(
      {
        testing::fatalToStderr();
        Registry key;
        key.openRoot("K", kFullAccess, makeFileSettingsStore((notADirectory / "settings.reg").string()));
      },
      ::testing::ExitedWithCode(1), "RegCreateKeyEx");
  fs::remove_all(dir);
}

}  // namespace
}  // namespace tarnlift
