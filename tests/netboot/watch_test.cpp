#include "netboot/boot_server_watch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "netboot/bootp.h"

namespace tarnlift::netboot {
namespace {

const MacAddress kRouter{0x00, 0x0C, 0x42, 0x11, 0x22, 0x33};
const uint32_t kOwn = parseIpv4("192.168.88.2");
const uint32_t kOther = parseIpv4("192.168.88.77");

std::vector<uint8_t> request(const MacAddress& mac) { return makeBootpRequest(mac, "Powerboot", -1, 7); }

// A reply as a DHCP server broadcasts it; identifier 0 leaves option 54 out.
std::vector<uint8_t> reply(const MacAddress& mac, uint32_t identifier = 0) {
  std::vector<uint8_t> bytes = makeBootpRequest(mac, "", -1, 7);
  bytes[0] = 2;
  uint32_t yiaddr = parseIpv4("192.168.88.150");
  std::memcpy(bytes.data() + 16, &yiaddr, 4);
  // siaddr names a next server of its own: never taken for the one answering.
  uint32_t siaddr = parseIpv4("192.168.88.200");
  std::memcpy(bytes.data() + 20, &siaddr, 4);
  size_t pos = 240;
  bytes[pos++] = 53;
  bytes[pos++] = 1;
  bytes[pos++] = 2;
  if (identifier != 0) {
    bytes[pos++] = 54;
    bytes[pos++] = 4;
    std::memcpy(bytes.data() + pos, &identifier, 4);
    pos += 4;
  }
  bytes[pos] = 255;
  return bytes;
}

class WatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    watch.setOwnAddress(kOwn);
    std::vector<uint8_t> r = request(kRouter);
    watch.noteRequest(r.data(), r.size());
  }
  bool hear(const std::vector<uint8_t>& bytes, uint32_t from, uint16_t port = 67) {
    return watch.hearReply(bytes.data(), bytes.size(), from, port, found);
  }

  app::ManualClock clock;
  BootServerWatch watch{clock};
  ForeignReply found;
};

TEST_F(WatchTest, AnotherServersReplyToOurClientIsReportedWithTheLine) {
  ASSERT_TRUE(hear(reply(kRouter), kOther));
  EXPECT_EQ(found.client, kRouter);
  EXPECT_EQ(found.server, kOther);
  EXPECT_EQ(foreignReplyText(found), "another boot server answered 00:0C:42:11:22:33: 192.168.88.77");
}

TEST_F(WatchTest, EachServerAtMostOncePerMinute) {
  const uint32_t third = parseIpv4("192.168.88.99");
  EXPECT_TRUE(hear(reply(kRouter), kOther));
  EXPECT_FALSE(hear(reply(kRouter), kOther));
  EXPECT_TRUE(hear(reply(kRouter), third)) << "another server has its own minute";
  clock.advanceMillis(59'999);
  EXPECT_FALSE(hear(reply(kRouter), kOther));
  clock.advanceMillis(1);
  EXPECT_TRUE(hear(reply(kRouter), kOther));
  EXPECT_FALSE(hear(reply(kRouter), kOther));
}

TEST_F(WatchTest, OurOwnRepliesAreNotReported) {
  EXPECT_FALSE(hear(reply(kRouter), kOwn));
  EXPECT_FALSE(hear(reply(kRouter, kOwn), kOther)) << "relayed, naming us";
}

TEST_F(WatchTest, TheServerIdentifierNamesTheServerBehindARelay) {
  const uint32_t relay = parseIpv4("192.168.88.1");
  const uint32_t server = parseIpv4("10.1.2.3");
  ASSERT_TRUE(hear(reply(kRouter, server), relay));
  EXPECT_EQ(found.server, server);
}

TEST_F(WatchTest, RepliesToClientsNeverSeenAreIgnored) {
  const MacAddress stranger{0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
  EXPECT_FALSE(hear(reply(stranger), kOther));
  std::vector<uint8_t> r = request(stranger);
  watch.noteRequest(r.data(), r.size());
  EXPECT_TRUE(hear(reply(stranger), kOther));
}

TEST_F(WatchTest, OnlyRequestsMakeAClientKnown) {
  const MacAddress stranger{0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
  std::vector<uint8_t> r = reply(stranger);
  watch.noteRequest(r.data(), r.size());
  EXPECT_FALSE(watch.knowsClient(stranger));
  EXPECT_FALSE(hear(reply(stranger), kOther));
}

TEST_F(WatchTest, TheClientTableIsBoundedAndForgetsTheOldest) {
  for (size_t i = 0; i < kWatchClientLimit; ++i) {
    MacAddress mac{0x02, 0, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
    std::vector<uint8_t> r = request(mac);
    watch.noteRequest(r.data(), r.size());
  }
  EXPECT_FALSE(watch.knowsClient(kRouter));
  EXPECT_FALSE(hear(reply(kRouter), kOther));
  // Asking again makes it the newest.
  std::vector<uint8_t> r = request(kRouter);
  watch.noteRequest(r.data(), r.size());
  EXPECT_TRUE(watch.knowsClient(kRouter));
}

TEST_F(WatchTest, MalformedDatagramsAreIgnoredWithoutHarm) {
  std::vector<uint8_t> good = reply(kRouter);
  EXPECT_FALSE(watch.hearReply(nullptr, 0, kOther, 67, found));
  for (size_t length : {size_t(0), size_t(1), size_t(34), size_t(235)}) {
    std::vector<uint8_t> cut(good.begin(), good.begin() + static_cast<long>(length));
    EXPECT_FALSE(hear(cut, kOther)) << length;
    watch.noteRequest(cut.data(), cut.size());
  }
  std::vector<uint8_t> wrongOp = good;
  wrongOp[0] = 1;
  EXPECT_FALSE(hear(wrongOp, kOther));
  std::vector<uint8_t> wrongHardware = good;
  wrongHardware[2] = 16;
  EXPECT_FALSE(hear(wrongHardware, kOther));
  EXPECT_FALSE(hear(good, kOther, 68)) << "not from the server port";
  EXPECT_FALSE(hear(good, 0)) << "no address to name";

  // Options cut short or overrunning the datagram: the source address names
  // the server.
  std::vector<uint8_t> overrun = reply(kRouter, parseIpv4("10.9.9.9"));
  overrun[244] = 54;
  overrun[245] = 200;
  overrun.resize(250);
  ASSERT_TRUE(hear(overrun, kOther));
  EXPECT_EQ(found.server, kOther);
  std::vector<uint8_t> noCookie = reply(kRouter, parseIpv4("10.9.9.9"));
  noCookie[236] = 0;
  ASSERT_TRUE(hear(noCookie, parseIpv4("192.168.88.78")));
  EXPECT_EQ(found.server, parseIpv4("192.168.88.78"));
  // A fixed part alone, without cookie or options.
  std::vector<uint8_t> bare(good.begin(), good.begin() + 236);
  ASSERT_TRUE(hear(bare, parseIpv4("192.168.88.79")));

  // Every prefix of a reply with options, each from a server of its own.
  std::vector<uint8_t> full = reply(kRouter, parseIpv4("10.0.0.1"));
  for (size_t length = 0; length <= full.size(); ++length) {
    std::vector<uint8_t> cut(full.begin(), full.begin() + static_cast<long>(length));
    clock.advanceMillis(60'000);
    hear(cut, kOther);
  }
}

}  // namespace
}  // namespace tarnlift::netboot
