// The --web address and the token file, as serve reads them.
#include "web/web_console.h"

#include <gtest/gtest.h>

#include "tests/install/temp_dir.h"

namespace tarnlift::web {
namespace {

TEST(WebConsoleOptions, ListenAddressDefaultsToLoopback) {
  uint32_t address = 1;
  uint16_t port = 1;
  std::string error;
  ASSERT_TRUE(parseListenAddress("8080", address, port, error)) << error;
  EXPECT_EQ(address, 0x7F000001u);
  EXPECT_EQ(port, 8080);
  ASSERT_TRUE(parseListenAddress("0.0.0.0:0", address, port, error));
  EXPECT_EQ(address, 0u);
  EXPECT_EQ(port, 0);
  ASSERT_TRUE(parseListenAddress("localhost:65535", address, port, error));
  EXPECT_EQ(address, 0x7F000001u);
  ASSERT_TRUE(parseListenAddress("192.168.88.2:80", address, port, error));
  EXPECT_EQ(dottedHostOrder(address), "192.168.88.2");
  for (const char* bad : {"", ":", "65536", "x:80", "1.2.3:80", "1.2.3.256:80", "1.2.3.4.5:80", "0x7f.1:80", "80a",
                          "1.2.3.4:", "-1"}) {
    EXPECT_FALSE(parseListenAddress(bad, address, port, error)) << bad;
    EXPECT_NE(error.find("[ADDRESS:]PORT"), std::string::npos) << bad;
  }
}

TEST(WebConsoleOptions, OnlyLoopbackCountsAsThisMachine) {
  EXPECT_TRUE(isLoopbackAddress(0x7F000001u));
  EXPECT_TRUE(isLoopbackAddress(0x7F0A0B0Cu));
  EXPECT_FALSE(isLoopbackAddress(0));
  EXPECT_FALSE(isLoopbackAddress(0xC0A85802u));
}

TEST(WebConsoleOptions, TheTokenIsTheFirstLineWithoutBlanks) {
  tarnlift::testing::TempDir dir;
  std::string token, error;
  ASSERT_TRUE(readTokenFile(dir.write("t", "  s3cret \r\nsecond line\n"), token, error)) << error;
  EXPECT_EQ(token, "s3cret");
  EXPECT_FALSE(readTokenFile(dir.write("empty", "\n"), token, error));
  EXPECT_NE(error.find("no token"), std::string::npos);
  EXPECT_FALSE(readTokenFile(dir.file("missing"), token, error));
  EXPECT_NE(error.find("cannot read"), std::string::npos);
}

}  // namespace
}  // namespace tarnlift::web
