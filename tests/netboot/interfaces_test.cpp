#include "netboot/interfaces.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "net/udp_socket.h"
#include "tests/app/capture_log.h"
#include "tests/netboot/fake_interfaces.h"

namespace tarnlift::netboot {
namespace {

using tarnlift::testing::CapturedLog;
using testing::FakeInterfaceSource;

uint32_t ip(const char* text) { return parseIpv4(text); }

class InterfacesTest : public ::testing::Test {
 protected:
  void SetUp() override { setServedInterface({}); }
  void TearDown() override { setServedInterface({}); }
};

TEST_F(InterfacesTest, SelectsTheAdapterInTheClientsSubnet) {
  FakeInterfaceSource source;
  source.addAdapter("other", "10.0.0.7", "255.255.255.0");
  AdapterInfo& lan = source.addAdapter("lan", "192.168.88.5", "255.255.255.0");
  lan.gateways = {"0.0.0.0", "192.168.88.254", "192.168.88.253"};
  lan.mac = {1, 2, 3, 4, 5, 6};
  CapturedLog log;
  findInterface(ip("192.168.88.1"), source);
  EXPECT_EQ(serverAddress(), ip("192.168.88.5"));
  EXPECT_EQ(serverNetmask(), ip("255.255.255.0"));
  EXPECT_EQ(serverGateway(), ip("192.168.88.254"));
  EXPECT_EQ(servedInterface().name, "lan");
  EXPECT_EQ(servedInterface().mac, (MacAddress{1, 2, 3, 4, 5, 6}));
  EXPECT_TRUE(log.contains("iface: other ip-addr: 10.0.0.7/255.255.255.0 found: false\n"));
  EXPECT_TRUE(log.contains("iface: lan ip-addr: 192.168.88.5/255.255.255.0 found: true\n"));
  EXPECT_TRUE(log.contains("iface: lan gw: 0.0.0.0\n"));
  EXPECT_TRUE(log.contains("iface: lan gw: 192.168.88.254\n"));
  EXPECT_EQ(source.walks, 2);
}

TEST_F(InterfacesTest, UnconfiguredAddressIsSkippedWithoutALine) {
  FakeInterfaceSource source;
  source.addAdapter("dead", "0.0.0.0", "0.0.0.0");
  CapturedLog log;
  findInterface(ip("192.168.88.1"), source);
  EXPECT_EQ(serverAddress(), 0u);
  EXPECT_FALSE(log.contains("found:"));
  EXPECT_EQ(source.bindTests, 0);
}

TEST_F(InterfacesTest, ZeroMaskWithAddressMatchesEveryClient) {
  FakeInterfaceSource source;
  source.addAdapter("wide", "172.16.1.1", "0.0.0.0");
  CapturedLog log;
  findInterface(ip("8.8.8.8"), source);
  EXPECT_EQ(serverAddress(), ip("172.16.1.1"));
  EXPECT_EQ(serverNetmask(), 0u);
  EXPECT_TRUE(log.contains("found: true"));
}

TEST_F(InterfacesTest, NoMatchLeavesAddressZeroAndGatewayUntouched) {
  ServedInterface before;
  before.address = ip("1.2.3.4");
  before.netmask = ip("255.0.0.0");
  before.gateway = ip("1.2.3.254");
  setServedInterface(before);
  FakeInterfaceSource source;
  source.addAdapter("lan", "10.0.0.7", "255.255.255.0").gateways = {"10.0.0.1"};
  CapturedLog log;
  findInterface(ip("192.168.88.1"), source);
  EXPECT_EQ(serverAddress(), 0u);
  EXPECT_EQ(serverNetmask(), 0u);
  EXPECT_EQ(serverGateway(), ip("1.2.3.254"));
}

TEST_F(InterfacesTest, AdapterWithoutGatewayClearsGateway) {
  ServedInterface before;
  before.gateway = ip("1.2.3.254");
  setServedInterface(before);
  FakeInterfaceSource source;
  source.addAdapter("lan", "192.168.88.5", "255.255.255.0").gateways = {"0.0.0.0"};
  CapturedLog log;
  findInterface(ip("192.168.88.1"), source);
  EXPECT_EQ(serverGateway(), 0u);
}

TEST_F(InterfacesTest, ListFailureSelectsNothing) {
  setServedInterface({ip("1.2.3.4"), ip("255.0.0.0"), 0, {}, "x"});
  FakeInterfaceSource source;
  source.listFails = true;
  findInterface(ip("1.2.3.5"), source);
  EXPECT_EQ(serverAddress(), 0u);
  EXPECT_FALSE(hasInterfaceFor(ip("1.2.3.5"), source));
}

TEST_F(InterfacesTest, BindTestIsRepeatedOnTheSameEntryUntilItSucceeds) {
  FakeInterfaceSource source;
  source.addAdapter("lan", "192.168.88.5", "255.255.255.0");
  source.addAdapter("lan2", "192.168.88.6", "255.255.255.0");
  source.bindFailures = {{ip("192.168.88.5"), 3}};
  CapturedLog log;
  findInterface(ip("192.168.88.1"), source);
  EXPECT_EQ(serverAddress(), ip("192.168.88.5"));
  EXPECT_EQ(source.bindTests, 4);
  std::string text = log.text();
  size_t failures = 0;
  for (size_t at = text.find("bind test failed"); at != std::string::npos; at = text.find("bind test failed", at + 1)) {
    ++failures;
  }
  EXPECT_EQ(failures, 3u);
  EXPECT_FALSE(log.contains("lan2"));
}

TEST_F(InterfacesTest, FirstMatchingAddressInListOrderWins) {
  FakeInterfaceSource source;
  AdapterInfo& adapter = source.addAdapter("lan", "10.1.1.1", "255.255.255.0");
  adapter.addresses.push_back({"192.168.88.9", "255.255.0.0"});
  adapter.addresses.push_back({"192.168.88.10", "255.255.255.0"});
  CapturedLog log;
  findInterface(ip("192.168.88.1"), source);
  EXPECT_EQ(serverAddress(), ip("192.168.88.9"));
  EXPECT_EQ(serverNetmask(), ip("255.255.0.0"));
}

TEST_F(InterfacesTest, HasInterfaceIgnoresLoopback) {
  FakeInterfaceSource source;
  source.prefixes.push_back({true, {{ip("127.0.0.1"), 8}}});
  EXPECT_FALSE(hasInterfaceFor(ip("127.0.0.5"), source));
  source.prefixes.push_back({false, {{ip("192.168.88.5"), 24}}});
  EXPECT_FALSE(hasInterfaceFor(ip("127.0.0.5"), source));
  EXPECT_TRUE(hasInterfaceFor(ip("192.168.88.77"), source));
  EXPECT_FALSE(hasInterfaceFor(ip("192.168.89.77"), source));
}

TEST_F(InterfacesTest, HasInterfacePrefixRules) {
  FakeInterfaceSource source;
  source.prefixes.push_back({false, {{0, 0}}});
  EXPECT_FALSE(hasInterfaceFor(ip("1.2.3.4"), source)) << "a zero address never counts";
  source.prefixes = {{false, {{ip("10.0.0.1"), 0}}}};
  EXPECT_TRUE(hasInterfaceFor(ip("1.2.3.4"), source)) << "prefix 0 matches everyone";
  source.prefixes = {{false, {{ip("10.0.0.1"), 40}}}};
  EXPECT_TRUE(hasInterfaceFor(ip("1.2.3.4"), source)) << "prefix above 32 counts as found";
  source.prefixes = {{false, {{ip("10.0.0.1"), 32}}}};
  EXPECT_FALSE(hasInterfaceFor(ip("10.0.0.2"), source));
  EXPECT_TRUE(hasInterfaceFor(ip("10.0.0.1"), source));
}

TEST_F(InterfacesTest, LocalMacsComeInOrderOrRandomWhenNoneAnswers) {
  FakeInterfaceSource source;
  source.macs = {{0, 0x11, 0x22, 0x33, 0x44, 0x55}, {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}};
  CapturedLog log;
  std::vector<MacAddress> macs = localMacAddresses(source);
  ASSERT_EQ(macs.size(), 2u);
  EXPECT_EQ(macs[0], source.macs[0]);
  EXPECT_TRUE(log.contains("iface 0: 00:11:22:33:44:55\n"));
  EXPECT_TRUE(log.contains("iface 1: AA:BB:CC:DD:EE:FF\n"));
  source.macs.clear();
  std::srand(7);
  macs = localMacAddresses(source);
  ASSERT_EQ(macs.size(), 1u);
  EXPECT_NE(macs[0], MacAddress{});
}

TEST(RunningUnderWine, NeedsApplicationInWineLoader) {
#ifdef _WIN32
  _putenv_s("WINELOADER", "/opt/wine/Application");
  EXPECT_TRUE(detectRunningUnderWine());
  _putenv_s("WINELOADER", "/usr/bin/wine");
  EXPECT_FALSE(detectRunningUnderWine());
#else
  setenv("WINELOADER", "/opt/wine/Application", 1);
  EXPECT_TRUE(detectRunningUnderWine());
  setenv("WINELOADER", "/usr/bin/wine", 1);
  EXPECT_FALSE(detectRunningUnderWine());
  unsetenv("WINELOADER");
  EXPECT_FALSE(detectRunningUnderWine());
#endif
  setRunningUnderWine(false);
}

// The real adapter list: the loopback address never serves a client, and a
// bind test against it passes, whatever the machine's own interfaces are.
TEST(PlatformInterfaces, LoopbackIsNeverChosen) {
  CapturedLog log;
  findInterface(parseIpv4("127.0.0.1"));
  EXPECT_NE(serverAddress(), parseIpv4("127.0.0.1"));
  EXPECT_FALSE(hasInterfaceFor(parseIpv4("127.0.0.1")) && serverAddress() == parseIpv4("127.0.0.1"));
  EXPECT_TRUE(platformInterfaceSource().bindTest(parseIpv4("127.0.0.1")));
  EXPECT_FALSE(localMacAddresses().empty());
  setServedInterface({});
}

}  // namespace
}  // namespace tarnlift::netboot

namespace {
class SocketEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { tarnlift::net::startSocketLibrary(); }
};
const auto* const kSocketEnvironment = ::testing::AddGlobalTestEnvironment(new SocketEnvironment);
}  // namespace
