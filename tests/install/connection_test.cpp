#include "install/connection.h"

#include <gtest/gtest.h>

#include "fake_transport.h"
#include "tests/app/capture_log.h"

namespace tarnlift {
namespace {

using namespace install;

using testing::kRouterMac;
using testing::kServerMac;
using testing::makeDatagram;

InstallConnection boundConnection() {
  InstallConnection c;
  c.localMac = kServerMac;
  c.peerMac = kRouterMac;
  return c;
}

TEST(InstallConnection, NineteenBytesDroppedSilently) {
  testing::CapturedLog log;
  InstallConnection c = boundConnection();
  auto d = makeDatagram(kRouterMac, kServerMac, 1, 0, "");
  EXPECT_EQ(c.accept(d.data(), 19), -1);
  EXPECT_EQ(log.text(), "");
}

TEST(InstallConnection, TwentyBytesIsPureAcknowledgement) {
  InstallConnection c = boundConnection();
  auto d = makeDatagram(kRouterMac, kServerMac, 1, 0, "");
  EXPECT_TRUE(c.validate(d.data(), 20));
  EXPECT_EQ(c.accept(d.data(), 20), 1);
  EXPECT_EQ(c.ack, 1u);
}

TEST(InstallConnection, SizeMismatchLogged) {
  testing::CapturedLog log;
  InstallConnection c = boundConnection();
  auto d = makeDatagram(kRouterMac, kServerMac, 1, 0, "0123456789");
  writeLe16(d.data() + kPayloadLengthOffset, 12);
  EXPECT_FALSE(c.validate(d.data(), 30));
  EXPECT_TRUE(log.contains("* size mismatch: size: 30, payload: 12\n"));
}

TEST(InstallConnection, OwnLoopedBackDatagramRejectedSilently) {
  testing::CapturedLog log;
  InstallConnection c = boundConnection();
  auto d = makeDatagram(kServerMac, kRouterMac, 1, 0, "OFFR\n");
  EXPECT_FALSE(c.validate(d.data(), d.size()));
  EXPECT_EQ(log.text(), "");
}

TEST(InstallConnection, UnboundAcceptsZeroDestinationFromAnyone) {
  InstallConnection c;
  c.localMac = kServerMac;
  auto d = makeDatagram(MacAddress{1, 2, 3, 4, 5, 6}, MacAddress{}, 1, 0, "DSCV\n");
  EXPECT_TRUE(c.validate(d.data(), d.size()));
  auto e = makeDatagram(MacAddress{9, 9, 9, 9, 9, 9}, kServerMac, 1, 0, "x");
  EXPECT_TRUE(c.validate(e.data(), e.size()));
}

TEST(InstallConnection, BoundRefusesZeroDestinationAndOtherSources) {
  testing::CapturedLog log;
  InstallConnection c = boundConnection();
  auto zero = makeDatagram(kRouterMac, MacAddress{}, 1, 0, "DSCV\n");
  EXPECT_FALSE(c.validate(zero.data(), zero.size()));
  EXPECT_FALSE(log.contains("* invalid source"));
  auto other = makeDatagram(MacAddress{1, 2, 3, 4, 5, 6}, kServerMac, 1, 0, "RETR");
  EXPECT_FALSE(c.validate(other.data(), other.size()));
  EXPECT_TRUE(log.contains("* invalid source\n"));
}

TEST(InstallConnection, OtherDestinationRejectedSilently) {
  testing::CapturedLog log;
  InstallConnection c = boundConnection();
  auto d = makeDatagram(kRouterMac, MacAddress{7, 7, 7, 7, 7, 7}, 1, 0, "RETR");
  EXPECT_FALSE(c.validate(d.data(), d.size()));
  EXPECT_EQ(log.text(), "");
}

TEST(InstallConnection, AckBiggerThanSentSeqRefusedWithDiagnostics) {
  testing::CapturedLog log;
  InstallConnection c = boundConnection();
  uint8_t buffer[kDatagramBufferSize] = {};
  for (int i = 0; i < 5; ++i) c.buildHeader(buffer, 0);
  EXPECT_EQ(c.seq, 5u);
  auto bad = makeDatagram(kRouterMac, kServerMac, 1, 6, "RETR");
  EXPECT_EQ(c.accept(bad.data(), bad.size()), -1);
  EXPECT_TRUE(log.contains("* recv ack bigger than sent seq\n"));
  EXPECT_TRUE(log.contains("Src: 4C:5E:0C:01:02:03\tDst: 02:11:22:33:44:55\n"));
  EXPECT_TRUE(log.contains("Payload: 4\n"));
  EXPECT_TRUE(log.contains("SeqNum: 1\tAckNum: 6\n"));
  EXPECT_TRUE(log.contains("conn seqNum: 5, ackNum: 0\n"));
  auto good = makeDatagram(kRouterMac, kServerMac, 1, 5, "RETR");
  EXPECT_EQ(c.accept(good.data(), good.size()), 1);
}

TEST(InstallConnection, SequenceOrder) {
  InstallConnection c = boundConnection();
  uint8_t buffer[kDatagramBufferSize] = {};
  for (int i = 0; i < 3; ++i) c.buildHeader(buffer, 0);
  c.ack = 7;
  auto seven = makeDatagram(kRouterMac, kServerMac, 7, 1, "");
  auto nine = makeDatagram(kRouterMac, kServerMac, 9, 1, "");
  auto eight = makeDatagram(kRouterMac, kServerMac, 8, 1, "");
  EXPECT_EQ(c.accept(seven.data(), seven.size()), 0);
  EXPECT_EQ(c.accept(nine.data(), nine.size()), 0);
  EXPECT_EQ(c.ack, 7u);
  EXPECT_EQ(c.accept(eight.data(), eight.size()), 1);
  EXPECT_EQ(c.ack, 8u);
}

TEST(InstallConnection, BuildHeaderNumbersAndMacs) {
  InstallConnection c = boundConnection();
  c.ack = 0x12345;
  uint8_t buffer[kDatagramBufferSize] = {};
  buffer[12] = 0xAA;
  c.buildHeader(buffer, 7);
  EXPECT_EQ(payloadLengthOf(buffer), 7);
  EXPECT_EQ(sequenceOf(buffer), 1);
  EXPECT_EQ(acknowledgementOf(buffer), 0x2345);
  EXPECT_EQ(c.lastAckSent, 0x12345u);
  EXPECT_EQ(toMac(buffer), kServerMac);
  EXPECT_EQ(toMac(buffer + 6), kRouterMac);
  EXPECT_EQ(buffer[12], 0xAA);  // reserved bytes are never written
  c.buildHeader(buffer, 0);
  EXPECT_EQ(sequenceOf(buffer), 2);
}

TEST(InstallConnection, ResetZeroesEverything) {
  InstallConnection c = boundConnection();
  c.seq = 3;
  c.ack = 4;
  c.reset();
  EXPECT_EQ(c.seq, 0u);
  EXPECT_EQ(c.ack, 0u);
  EXPECT_TRUE(isZeroMac(c.localMac));
  EXPECT_TRUE(isZeroMac(c.peerMac));
}

TEST(MacText, UpperCaseWithColons) {
  MacAddress mac = {0x0a, 0xbc, 0x00, 0xff, 0x10, 0x01};
  EXPECT_EQ(macText(mac), "0A:BC:00:FF:10:01");
  MacAddress parsed{};
  EXPECT_TRUE(parseMac("0a:bc:00:FF:10:01", parsed));
  EXPECT_EQ(parsed, mac);
  EXPECT_FALSE(parseMac("0a:bc:00:FF:10", parsed));
  EXPECT_FALSE(parseMac("0a:bc:00:FF:10:0g", parsed));
}

TEST(DottedAddress, ParseAndFormat) {
  uint32_t a = parseDottedAddress("10.0.0.1");
  EXPECT_EQ(dottedAddress(a), "10.0.0.1");
  EXPECT_EQ(dottedAddress(parseDottedAddress("10.0.0")), "10.0.0.0");
  EXPECT_EQ(dottedAddress(parseDottedAddress("010.0.0.1")), "8.0.0.1");
  EXPECT_EQ(parseDottedAddress("10.0.0.256"), 0xFFFFFFFFu);
  EXPECT_EQ(parseDottedAddress(""), 0xFFFFFFFFu);
}

}  // namespace
}  // namespace tarnlift
