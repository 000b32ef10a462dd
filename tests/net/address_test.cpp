#include "net/address.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#ifdef _WIN32
#include <winsock2.h>
#else
#include <arpa/inet.h>
#endif

namespace tarnlift::net {
namespace {

std::string dotted(const std::string& text) { return formatIpv4(parseIpv4(text)); }

TEST(Ipv4Text, FourDecimalParts) {
  EXPECT_EQ(dotted("192.168.88.1"), "192.168.88.1");
  EXPECT_EQ(parseIpv4("255.255.255.255"), kAddressNone);
  EXPECT_EQ(dotted("0"), "0.0.0.0");
  EXPECT_EQ(formatMac(MacAddress{0xde, 0xad, 0xbe, 0xef, 0, 1}), "DE:AD:BE:EF:00:01");
}

TEST(Ipv4Text, ShortFormsFillTheLastPart) {
  EXPECT_EQ(dotted("10.1"), "10.0.0.1");
  EXPECT_EQ(dotted("10.1.2"), "10.1.0.2");
  EXPECT_EQ(dotted("10.0.0"), "10.0.0.0");
  EXPECT_EQ(dotted("10.65536"), "10.1.0.0");
  EXPECT_EQ(dotted("10.1.258"), "10.1.1.2");
  EXPECT_EQ(dotted("3232235521"), "192.168.0.1");
  EXPECT_EQ(dotted("0xC0A80001"), "192.168.0.1");
  EXPECT_EQ(parseIpv4("1.16777216"), kAddressNone);
  EXPECT_EQ(parseIpv4("1.2.65536"), kAddressNone);
  EXPECT_EQ(parseIpv4("4294967296"), kAddressNone);
}

TEST(Ipv4Text, OctalAndHexadecimalParts) {
  EXPECT_EQ(dotted("010.0.0.1"), "8.0.0.1");
  EXPECT_EQ(dotted("0x7f.1"), "127.0.0.1");
  EXPECT_EQ(dotted("0X0A.0x0.00.0x01"), "10.0.0.1");
  EXPECT_EQ(dotted("0377.0xff.0.0"), "255.255.0.0");
  EXPECT_EQ(parseIpv4("08.0.0.1"), kAddressNone);
  EXPECT_EQ(parseIpv4("0x.1.2.3"), kAddressNone);
  EXPECT_EQ(parseIpv4("0x1g.1.2.3"), kAddressNone);
}

TEST(Ipv4Text, RejectsWhatInetAddrRejects) {
  for (const char* text : {"", "abc", " 1.2.3.4", "1.2.3.256", "1.2.3.4.5", "1.2.3.4x", "1.2.3.", "1..2.3", ".1.2.3",
                           "-1.2.3.4", "+1.2.3.4", "1.2.3.4/24", "99999999999999999999"}) {
    EXPECT_EQ(parseIpv4(text), kAddressNone) << text;
  }
}

TEST(Ipv4Text, ABlankEndsTheText) {
  EXPECT_EQ(dotted("1.2.3.4 "), "1.2.3.4");
  EXPECT_EQ(dotted("1.2.3.4\tgarbage"), "1.2.3.4");
  EXPECT_EQ(dotted("10.1 x"), "10.0.0.1");
}

TEST(Ipv4Text, AllOnesBecomesZeroWhereThatMeansNoAddress) {
  EXPECT_EQ(parseIpv4OrZero("255.255.255.255"), 0u);
  EXPECT_EQ(parseIpv4OrZero("0xffffffff"), 0u);
  EXPECT_EQ(parseIpv4OrZero("not an address"), 0u);
  EXPECT_EQ(parseIpv4OrZero(""), 0u);
  EXPECT_EQ(formatIpv4(parseIpv4OrZero("10.1")), "10.0.0.1");
  EXPECT_EQ(formatIpv4(parseIpv4OrZero("255.255.255.254")), "255.255.255.254");
}

// The platform's own inet_addr gives the same answers for every form.
TEST(Ipv4Text, AgreesWithThePlatformsInetAddr) {
  const std::vector<std::string> texts = {
      "192.168.88.1", "10.1",       "10.1.2",        "010.0.0.1",   "0x7f.1",     "0X0A.0x0.00.0x01", "3232235521",
      "0xC0A80001",   "0377.0xff.0.0", "255.255.255.255", "0",       "1.2.3.256",  "1.2.3.4.5",        "1.2.3.4x",
      "1.2.3.",       "1..2.3",     "08.0.0.1",      "abc",         "1.16777216", "1.2.65536",        "10.65536",
      "1.2.3.4 ",     "4294967295", "0.0.0.0",       "127.1",       "0x100.1",    "00000001.2.3.4",
  };
  for (const std::string& text : texts) {
    EXPECT_EQ(parseIpv4(text), static_cast<uint32_t>(inet_addr(text.c_str()))) << text;
  }
}


// The strict reading that the address pool, the inventory, the web
// console's listening address and its address options share: every case
// those four readers were tested with, and the forms between them.
std::string strict(const std::string& text) {
  uint32_t address = 0x01020304;  // left alone on refusal
  if (!parseDottedQuad(text, address)) return address == 0x01020304 ? "refused" : "refused, but changed";
  return formatIpv4(address);
}

TEST(DottedQuad, FourDecimalPartsInNetworkOrder) {
  EXPECT_EQ(strict("10.0.5.10"), "10.0.5.10");
  EXPECT_EQ(strict("192.168.88.2"), "192.168.88.2");
  EXPECT_EQ(strict("127.0.0.1"), "127.0.0.1");
  EXPECT_EQ(strict("0.0.0.0"), "0.0.0.0");
  EXPECT_EQ(strict("255.255.255.255"), "255.255.255.255");
  uint32_t address = 0;
  ASSERT_TRUE(parseDottedQuad("10.0.0.1", address));
  EXPECT_EQ(address, parseIpv4("10.0.0.1"));
  EXPECT_EQ(hostOrder(address), 0x0A000001u);
}

TEST(DottedQuad, ALeadingZeroIsStillDecimal) {
  EXPECT_EQ(strict("010.0.0.1"), "10.0.0.1");
  EXPECT_EQ(strict("001.002.003.004"), "1.2.3.4");
  EXPECT_EQ(strict("0010.0.0.1"), "refused");  // four digits
  EXPECT_EQ(strict("1.2.3.0255"), "refused");
}

TEST(DottedQuad, RefusesEveryOtherForm) {
  for (const char* text : {"", "a", "x", "gw", "a-b", "1", "10.0.0", "10.0.5", "1.2.3", "1.2.3.4.5", "1.2.3.256",
                           "10.0.0.300", "10.0.5.256", "1.2.3.", ".1.2.3", "1..2.3", "0x7f.1", "0x7f.0.0.1",
                           "3232235521", " 1.2.3.4", "1.2.3.4 ", "1.2.3.4\t", "1.2.3.4x", "+1.2.3.4", "-1.2.3.4",
                           "1.2.3.-4", "1.2.3.4/24", "1.2.3.4:80", "1,2,3,4", "1.2.3.4."}) {
    EXPECT_EQ(strict(text), "refused") << text;
  }
  EXPECT_EQ(strict(std::string("1.2.3.4\0", 8)), "refused");
}

TEST(AddressByteOrder, HostAndNetworkOrderAreEachOthersInverse) {
  EXPECT_EQ(hostOrder(parseIpv4("10.0.5.12")), 0x0A00050Cu);
  EXPECT_EQ(formatIpv4(networkOrder(0xC0A85802u)), "192.168.88.2");
  for (uint32_t value : {0u, 1u, 0x7F000001u, 0x12345678u, 0xFFFFFFFFu}) {
    EXPECT_EQ(hostOrder(networkOrder(value)), value);
    EXPECT_EQ(networkOrder(hostOrder(value)), value);
  }
}

TEST(MacText, ColonsOrDashesEitherCase) {
  MacAddress mac{};
  ASSERT_TRUE(parseMac("4C:5E:0C:01:02:03", mac));
  EXPECT_EQ(formatMac(mac), "4C:5E:0C:01:02:03");
  ASSERT_TRUE(parseMac("aa-bb-cc-dd-ee-ff", mac));
  EXPECT_EQ(formatMac(mac), "AA:BB:CC:DD:EE:FF");
  const MacAddress before = mac;
  for (const char* text : {"", "4C:5E:0C:01:02", "4C:5E:0C:01:02:0g", "4C:5E:0C:01:02:03:04", "4C 5E 0C 01 02 03",
                           "4C:5E:0C:01:02:3", "4C5E0C010203", "4C:5E:0C:01:02:03 "}) {
    EXPECT_FALSE(parseMac(text, mac)) << text;
    EXPECT_EQ(mac, before) << text;  // nothing half-read is left behind
  }
}

}  // namespace
}  // namespace tarnlift::net
