// The --web address and the token file, as serve reads them.
#include "web/web_console.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "net/address.h"
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
  EXPECT_EQ(net::formatHostOrderIpv4(address), "192.168.88.2");
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
  ASSERT_TRUE(readTokenFile(dir.write("t", "  0123456789abcdef \r\nsecond line\n"), token, error)) << error;
  EXPECT_EQ(token, "0123456789abcdef");
  // As an editor on Windows saves it: a byte order mark, CR LF, blanks.
  ASSERT_TRUE(readTokenFile(dir.write("bom",
                                      "\xEF\xBB\xBF"
                                      "0123456789abcdef\t \r\n"),
                            token, error))
      << error;
  EXPECT_EQ(token, "0123456789abcdef");
  EXPECT_FALSE(readTokenFile(dir.write("empty", "\n"), token, error));
  EXPECT_NE(error.find("no token"), std::string::npos);
  EXPECT_FALSE(readTokenFile(dir.file("missing"), token, error));
  EXPECT_NE(error.find("cannot read"), std::string::npos);
}

TEST(WebConsoleOptions, ATokenShorterThanSixteenCharactersIsRefused) {
  tarnlift::testing::TempDir dir;
  std::string token, error;
  EXPECT_FALSE(readTokenFile(dir.write("short", "s3cret\n"), token, error));
  EXPECT_NE(error.find("at least 16"), std::string::npos) << error;
  EXPECT_NE(error.find("openssl rand -hex 16"), std::string::npos) << error;
  EXPECT_TRUE(token.empty());
  EXPECT_FALSE(readTokenFile(dir.write("fifteen", "0123456789abcde\n"), token, error));
  EXPECT_TRUE(readTokenFile(dir.write("sixteen", "0123456789abcdef\n"), token, error)) << error;
}

TEST(WebConsoleOptions, ATokenFileOthersMayReadIsNamed) {
#if defined(_WIN32)
  GTEST_SKIP() << "Windows keeps readers in the file's ACL";
#else
  tarnlift::testing::TempDir dir;
  std::string path = dir.write("t", "0123456789abcdef\n");
  std::filesystem::permissions(path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  EXPECT_EQ(tokenFileExposure(path), "");
  std::filesystem::permissions(path, std::filesystem::perms::group_read, std::filesystem::perm_options::add);
  EXPECT_EQ(tokenFileExposure(path), "readable by its group (mode 0640)");
  std::filesystem::permissions(path, std::filesystem::perms::others_read, std::filesystem::perm_options::add);
  EXPECT_EQ(tokenFileExposure(path), "readable by others (mode 0644)");
#endif
}

TEST(WebConsoleOptions, WebOriginsAreSchemeAndHostOnly) {
  std::string origin, error;
  ASSERT_TRUE(normaliseOrigin("https://Provisioning.Example/", origin, error)) << error;
  EXPECT_EQ(origin, "https://provisioning.example");
  ASSERT_TRUE(normaliseOrigin("http://10.0.0.1:8443", origin, error));
  EXPECT_EQ(origin, "http://10.0.0.1:8443");
  for (const char* bad : {"provisioning.example", "ftp://a.example", "https://a.example/console", "https://",
                          "https://a.example:99999", "https://user@a.example", "https://a.example?x"}) {
    EXPECT_FALSE(normaliseOrigin(bad, origin, error)) << bad;
    EXPECT_NE(error.find("--web-origin"), std::string::npos);
  }
}

}  // namespace
}  // namespace tarnlift::web
