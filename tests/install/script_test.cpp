#include "install/autorun_script.h"

#include <gtest/gtest.h>

#include "fake_transport.h"
#include "temp_dir.h"

namespace tarnlift {
namespace {

using namespace install;

RouterRecord optionsRecord() {
  RouterRecord r;
  r.mac = testing::kRouterMac;
  r.address = parseDottedAddress("192.168.88.1");
  r.netmaskBits = 24;
  r.gateway = parseDottedAddress("192.168.88.254");
  r.baudRate = 115200;
  return r;
}

const char* kExpectedLines =
    "\n:local eth [/interface ethernet get [/interface ethernet find mac-address=\"4C:5E:0C:01:02:03\"] name]\n"
    "/interface enable $eth\n"
    "/ip address add address=192.168.88.1/24 interface=$eth\n"
    "/ip route add gateway=192.168.88.254\n"
    "/port set [/port find] baud-rate=115200\n";

TEST(AutorunScript, GeneratedLines) {
  EXPECT_EQ(generatedScriptText(optionsRecord()), kExpectedLines);
  RouterRecord noMask = optionsRecord();
  noMask.netmaskBits = 0;
  EXPECT_EQ(generatedScriptText(noMask), "/port set [/port find] baud-rate=115200\n");
  RouterRecord noGateway = optionsRecord();
  noGateway.gateway = 0;
  noGateway.baudRate = 0;
  EXPECT_EQ(generatedScriptText(noGateway).find("/ip route"), std::string::npos);
  EXPECT_EQ(generatedScriptText(RouterRecord{}), "");
}

TEST(AutorunScript, UserScriptThenGeneratedLines) {
  testing::TempDir dir;
  RouterRecord r = optionsRecord();
  r.scriptEnabled = true;
  r.scriptPath = dir.write("user.rsc", testing::patternBytes(9000, 7));
  std::string failure;
  std::string path = makeAutorunScript(r, failure);
  ASSERT_FALSE(path.empty()) << failure;
  EXPECT_EQ(failure, "");
  EXPECT_EQ(path.substr(path.size() - 4), ".scr");
  EXPECT_EQ(testing::readFile(path), testing::patternBytes(9000, 7) + kExpectedLines);
  std::remove(path.c_str());
}

TEST(AutorunScript, DefaultConfigMakesNoScript) {
  RouterRecord r = optionsRecord();
  r.defaultConfig = true;
  std::string failure = "x";
  EXPECT_EQ(makeAutorunScript(r, failure), "");
  EXPECT_EQ(failure, "");
}

TEST(AutorunScript, KeepConfigGivesEmptyFile) {
  RouterRecord r = optionsRecord();
  r.keepConfig = true;
  std::string failure;
  std::string path = makeAutorunScript(r, failure);
  ASSERT_FALSE(path.empty());
  EXPECT_EQ(testing::readFile(path), "");
  std::remove(path.c_str());
}

TEST(AutorunScript, MissingUserScriptFails) {
  testing::TempDir dir;
  RouterRecord r = optionsRecord();
  r.scriptEnabled = true;
  r.scriptPath = dir.file("absent.rsc");
  std::string failure;
  EXPECT_EQ(makeAutorunScript(r, failure), "");
  EXPECT_EQ(failure, "Could not open script file");
}

TEST(AutorunScript, UnreadableUserScriptFails) {
  testing::TempDir dir;
  RouterRecord r = optionsRecord();
  r.scriptEnabled = true;
  r.scriptPath = dir.path();  // a folder opens but cannot be read
  std::string failure;
  std::string path = makeAutorunScript(r, failure);
  EXPECT_EQ(path, "");
  EXPECT_TRUE(failure == "Could not read script" || failure == "Could not open script file") << failure;
}

TEST(AutorunScript, UniqueNamesDiffer) {
  std::string a = makeUniqueTempFile("scr");
  std::string b = makeUniqueTempFile("scr");
  EXPECT_FALSE(a.empty());
  EXPECT_NE(a, b);
  std::remove(a.c_str());
  std::remove(b.c_str());
}

}  // namespace
}  // namespace tarnlift
