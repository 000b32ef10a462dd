// The address pool: next free address, never twice in a run, reserved
// addresses skipped, and a router's address kept across runs.
#include "install/address_pool.h"
#include "net/address.h"

#include <gtest/gtest.h>

#include <set>

namespace tarnlift {
namespace {

using namespace install;

MacAddress mac(uint8_t last) { return {0x02, 0, 0, 0, 0, last}; }
uint32_t at(uint8_t last) { return 10u << 24 | 5u << 8 | last; }  // 10.0.5.last

TEST(AddressPoolTest, HandsOutEachAddressOnceAndSkipsReservedOnes) {
  AddressPool pool;
  std::string error;
  ASSERT_TRUE(pool.parse("10.0.5.10-10.0.5.13/24", error)) << error;
  EXPECT_EQ(pool.netmaskBits(), 24u);
  pool.reserve(at(11));
  EXPECT_EQ(pool.addressFor(mac(1)), at(10));
  EXPECT_EQ(pool.addressFor(mac(2)), at(12));
  EXPECT_EQ(pool.addressFor(mac(3)), at(13));
  EXPECT_EQ(pool.addressFor(mac(4)), 0u);  // used up
  EXPECT_EQ(net::formatHostOrderIpv4(at(12)), "10.0.5.12");
}

TEST(AddressPoolTest, ARouterGetsItsAddressAgainInTheNextRun) {
  AddressPool first;
  std::string error;
  ASSERT_TRUE(first.parse("10.0.5.10-10.0.5.20/24", error));
  uint32_t given[6] = {};
  std::set<uint32_t> distinct;
  for (uint8_t i = 1; i <= 5; ++i) distinct.insert(given[i] = first.addressFor(mac(i)));
  EXPECT_EQ(distinct.size(), 5u);
  const std::string remembered = first.rememberedText();
  EXPECT_NE(remembered.find("02:00:00:00:00:03=10.0.5.12"), std::string::npos) << remembered;

  AddressPool second;
  ASSERT_TRUE(second.parse("10.0.5.10-10.0.5.20/24", error));
  second.loadRemembered(remembered + ";garbage;02:00:00:00:00:09=192.168.1.1");
  // A new router first: it must not take an address promised to another.
  uint32_t fresh = second.addressFor(mac(7));
  EXPECT_NE(fresh, 0u);
  EXPECT_EQ(distinct.count(fresh), 0u);
  // The others in the opposite order still get their own.
  for (uint8_t i = 5; i >= 1; --i) EXPECT_EQ(second.addressFor(mac(i)), given[i]) << int(i);
  EXPECT_EQ(second.rememberedText().find("192.168.1.1"), std::string::npos);
}

TEST(AddressPoolTest, BadRangesAreRefused) {
  for (const char* bad : {"10.0.5.10-10.0.5.20", "10.0.5.20-10.0.5.10/24", "10.0.5.10/24", "10.0.5-10.0.5.20/24",
                          "10.0.5.10-10.0.5.20/33", "10.0.5.10-10.0.5.256/24", "a-b/24", "10.0.5.10-10.0.5.20/"}) {
    AddressPool pool;
    std::string error;
    EXPECT_FALSE(pool.parse(bad, error)) << bad;
    EXPECT_NE(error.find("A.B.C.D-A.B.C.E/BITS"), std::string::npos) << bad;
    EXPECT_TRUE(pool.empty()) << bad;
  }
}

}  // namespace
}  // namespace tarnlift
