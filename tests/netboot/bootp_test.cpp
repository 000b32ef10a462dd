#include "netboot/bootp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "tests/app/capture_log.h"
#include "tests/netboot/fake_network.h"

namespace tarnlift::netboot {
namespace {

using tarnlift::testing::CapturedLog;
using testing::FakeBootImageStore;
using testing::FakeNetwork;
using testing::ScopedBootImageStore;

const MacAddress kMac{0x00, 0x0C, 0x42, 0x01, 0x02, 0x03};
const MacAddress kOtherMac{0x00, 0x0C, 0x42, 0x0A, 0x0B, 0x0C};

std::vector<uint8_t> request(const std::string& vendorClass, int architecture = -1, const MacAddress& mac = kMac) {
  std::vector<uint8_t> bytes = makeBootpRequest(mac, vendorClass, architecture, 0x12345678);
  return bytes;
}

bool classifyBytes(BootpClassifier& classifier, const std::vector<uint8_t>& bytes) {
  return classifier.classify(bytes.data(), bytes.size());
}

TEST(BootpClassify, EveryVendorClassOfTheTable) {
  const std::pair<const char*, int> table[] = {
      {"PXEClient", 125},
      {"Etherboot", 127},
      {"Quenlboot", 128},
      {"Mips_boot", 131},
      {"MMipsBoot", 138},
      {"Powerboot", 129},
      {"e500_boot", 130},
      {"e500sboot", 130},
      {"440__boot", 135},
      {"tile_boot", 136},
      {"ARM__boot", 137},
      {"ARM64__boot", 139},
      {"PXEClient:Arch:00000", 125},
  };
  CapturedLog log;
  for (const auto& [text, expected] : table) {
    BootpClassifier classifier;
    EXPECT_TRUE(classifyBytes(classifier, request(text))) << text;
    EXPECT_EQ(classifier.clientClass(), expected) << text;
    EXPECT_EQ(classifier.clientMac(), kMac);
  }
  EXPECT_TRUE(log.contains("client: 00:0C:42:01:02:03\n"));
}

TEST(BootpClassify, LetterCaseIsIgnoredOtherBytesAreNot) {
  CapturedLog log;
  BootpClassifier classifier;
  EXPECT_TRUE(classifyBytes(classifier, request("pxeclient")));
  EXPECT_EQ(classifier.clientClass(), 125);
  EXPECT_TRUE(classifyBytes(classifier, request("E500SBOOT")));
  EXPECT_EQ(classifier.clientClass(), 130);
  BootpClassifier other;
  EXPECT_TRUE(classifyBytes(other, request("arm__boot", -1, kOtherMac)));
  EXPECT_EQ(other.clientClass(), 137);
  BootpClassifier fresh;
  EXPECT_FALSE(classifyBytes(fresh, request("ARM--boot")));
  EXPECT_EQ(fresh.clientClass(), kClassNone);
  EXPECT_FALSE(classifyBytes(fresh, request("Mips_boo")));  // only 8 bytes, then the end option
}

TEST(BootpClassify, Arm64ByItsFirstNineBytes) {
  CapturedLog log;
  for (const char* text : {"ARM64__bootloader", "ARM64__bo", "arm64__boXYZ"}) {
    BootpClassifier classifier;
    EXPECT_TRUE(classifyBytes(classifier, request(text))) << text;
    EXPECT_EQ(classifier.clientClass(), 139) << text;
  }
}

TEST(BootpClassify, EfiX64PxeClientsGetClass143) {
  CapturedLog log;
  BootpClassifier classifier;
  EXPECT_TRUE(classifyBytes(classifier, request("PXEClient:Arch:00007", 7)));
  EXPECT_EQ(classifier.clientClass(), 143);
  EXPECT_TRUE(log.contains("client system arch: 7\n"));
  EXPECT_TRUE(classifyBytes(classifier, request("PXEClient:Arch:00009", 9)));
  EXPECT_EQ(classifier.clientClass(), 143);
  EXPECT_TRUE(classifyBytes(classifier, request("PXEClient:Arch:00000", 0)));
  EXPECT_EQ(classifier.clientClass(), 125);
  EXPECT_TRUE(classifyBytes(classifier, request("Etherboot", 7)));
  EXPECT_EQ(classifier.clientClass(), 127) << "only PXE clients move to 143";
}

TEST(BootpClassify, HeaderChecksDropEvenAKnownClient) {
  CapturedLog log;
  BootpClassifier classifier;
  ASSERT_TRUE(classifyBytes(classifier, request("Powerboot")));
  std::vector<uint8_t> hops = request("Powerboot");
  hops[3] = 1;
  EXPECT_FALSE(classifyBytes(classifier, hops));
  std::vector<uint8_t> ciaddr = request("Powerboot");
  ciaddr[15] = 9;
  EXPECT_FALSE(classifyBytes(classifier, ciaddr));
  std::vector<uint8_t> reply = request("Powerboot");
  reply[0] = 2;
  EXPECT_FALSE(classifyBytes(classifier, reply));
  std::vector<uint8_t> htype = request("Powerboot");
  htype[1] = 6;
  EXPECT_FALSE(classifyBytes(classifier, htype));
  std::vector<uint8_t> hlen = request("Powerboot");
  hlen[2] = 16;
  EXPECT_FALSE(classifyBytes(classifier, hlen));
  std::vector<uint8_t> shortRequest(100, 0);
  shortRequest[0] = 1;
  shortRequest[1] = 1;
  shortRequest[2] = 6;
  EXPECT_FALSE(classifyBytes(classifier, shortRequest));
}

TEST(BootpClassify, UnknownMacWithoutVendorClassIsDroppedKnownOneKeepsItsClass) {
  CapturedLog log;
  BootpClassifier classifier;
  EXPECT_FALSE(classifyBytes(classifier, request("")));
  ASSERT_TRUE(classifyBytes(classifier, request("tile_boot")));
  EXPECT_TRUE(classifyBytes(classifier, request("")));
  EXPECT_EQ(classifier.clientClass(), 136);
  EXPECT_FALSE(classifyBytes(classifier, request("", -1, kOtherMac)));
  // An unknown vendor class from the known MAC is answered, with class -1.
  EXPECT_TRUE(classifyBytes(classifier, request("SomethingElse")));
  EXPECT_EQ(classifier.clientClass(), kClassNone);
  classifier.reset();
  EXPECT_FALSE(classifyBytes(classifier, request("")));
}

TEST(BootpClassify, OptionsAfterTheEndMarkerAreNotLookedAt) {
  CapturedLog log;
  std::vector<uint8_t> bytes = request("");
  bytes[240] = 255;
  bytes[241] = 60;
  bytes[242] = 9;
  std::memcpy(bytes.data() + 243, "PXEClient", 9);
  BootpClassifier classifier;
  EXPECT_FALSE(classifyBytes(classifier, bytes));
  // The same option before the end marker, after pads, is seen.
  bytes[240] = 0;
  bytes[252] = 255;
  EXPECT_TRUE(classifyBytes(classifier, bytes));
}

TEST(BootpClassify, TruncatedOptionStopsTheWalk) {
  CapturedLog log;
  // A full receive buffer of pads ending in an option whose data would run
  // past the last byte.
  std::vector<uint8_t> bytes = request("");
  bytes.resize(kBootpBufferSize, 0);
  bytes[240] = 0;
  bytes[kBootpBufferSize - 11] = 60;
  bytes[kBootpBufferSize - 10] = 30;
  std::memcpy(bytes.data() + kBootpBufferSize - 9, "PXEClient", 9);
  BootpClassifier classifier;
  EXPECT_FALSE(classifyBytes(classifier, bytes));
  // Longer than the receive buffer: only its first 1264 bytes count.
  bytes.resize(2000, 0);
  EXPECT_FALSE(classifyBytes(classifier, bytes));
  // A length byte as the very last byte stops the walk too.
  std::vector<uint8_t> cut = request("");
  cut.resize(242);
  cut[240] = 0;
  cut[241] = 60;
  EXPECT_FALSE(classifyBytes(classifier, cut));
}

TEST(BootpClassify, LaterVendorClassIsExaminedAfresh) {
  CapturedLog log;
  std::vector<uint8_t> bytes = request("");
  const uint8_t options[] = {60, 9,   'P', 'o', 'w', 'e', 'r', 'b', 'o', 'o', 't', 60,
                             9,  'X', 'X', 'X', 'X', 'X', 'X', 'X', 'X', 'X', 255};
  std::memcpy(bytes.data() + 240, options, sizeof options);
  BootpClassifier classifier;
  EXPECT_FALSE(classifyBytes(classifier, bytes));
  EXPECT_EQ(classifier.clientClass(), kClassNone);
}

class BootpReplyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ServedInterface served;
    served.address = parseIpv4("192.168.88.2");
    served.netmask = parseIpv4("255.255.255.0");
    setServedInterface(served);
  }
  void TearDown() override { setServedInterface({}); }

  std::vector<uint8_t> replyFor(int clientClass, const std::vector<uint8_t>& bytes) {
    std::vector<uint8_t> buffer(kBootpBufferSize, 0);
    std::memcpy(buffer.data(), bytes.data(), bytes.size());
    size_t length = buildBootpReply(buffer.data(), clientClass, parseIpv4("192.168.88.1"), serverAddress(),
                                    serverNetmask(), "/image");
    buffer.resize(length);
    return buffer;
  }
  FakeBootImageStore store;
};

TEST_F(BootpReplyTest, PxeReplyByteByByte) {
  store.addSized(143, 512);
  ScopedBootImageStore scoped(store);
  std::vector<uint8_t> bytes = request("PXEClient:Arch:00007", 7);
  std::memcpy(bytes.data() + 44, "server-name", 11);
  std::memcpy(bytes.data() + 108, "old-file-name-that-is-long", 26);
  std::vector<uint8_t> reply = replyFor(143, bytes);
  ASSERT_EQ(reply.size(), 251u);
  EXPECT_EQ(reply[0], 2);
  for (size_t i = 1; i < 16; ++i) EXPECT_EQ(reply[i], bytes[i]) << i;
  const uint8_t yiaddr[4] = {192, 168, 88, 1};
  const uint8_t siaddr[4] = {192, 168, 88, 2};
  EXPECT_EQ(std::memcmp(reply.data() + 16, yiaddr, 4), 0);
  EXPECT_EQ(std::memcmp(reply.data() + 20, siaddr, 4), 0);
  for (size_t i = 24; i < 108; ++i) EXPECT_EQ(reply[i], bytes[i]) << i;
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(reply.data() + 108)), "/image");
  for (size_t i = 108 + 6; i < 236; ++i) EXPECT_EQ(reply[i], 0) << i;
  for (size_t i = 236; i < 240; ++i) EXPECT_EQ(reply[i], bytes[i]) << i;
  const uint8_t options[] = {13, 2, 0, 2, 1, 4, 255, 255, 255, 0, 255};
  EXPECT_EQ(std::memcmp(reply.data() + 240, options, sizeof options), 0);
  EXPECT_EQ(store.lookups, std::vector<int>{143});
}

TEST_F(BootpReplyTest, BootFileSizeIsAlwaysRoundedUpByOneBlock) {
  store.addSized(143, 511);
  store.addSized(125, 0);
  ScopedBootImageStore scoped(store);
  std::vector<uint8_t> reply = replyFor(143, request("PXEClient", 7));
  EXPECT_EQ(reply[242], 0);
  EXPECT_EQ(reply[243], 1);
  store.addSized(143, 512 * 300 + 1);
  reply = replyFor(143, request("PXEClient", 7));
  EXPECT_EQ(reply[242] << 8 | reply[243], 301);
  reply = replyFor(125, request("PXEClient"));
  EXPECT_EQ(reply[242] << 8 | reply[243], 1);
  EXPECT_EQ(store.lookups.back(), 125);
}

// The 16-bit block count holds images up to 65,534 whole blocks and a part;
// from 65,535 * 512 bytes on it would wrap (32 MiB announced as 0 bytes,
// 40 MiB as 8,389,120).
TEST(BootFileSize, FitsUpToTheLastCountSixteenBitsHold) {
  uint32_t blocks = 0;
  ASSERT_TRUE(bootFileSizeBlocks(0, blocks));
  EXPECT_EQ(blocks, 1u);
  ASSERT_TRUE(bootFileSizeBlocks(65534u * 512 + 511, blocks));
  EXPECT_EQ(blocks, 65535u);
  blocks = 7;
  EXPECT_FALSE(bootFileSizeBlocks(65535u * 512, blocks));
  EXPECT_EQ(blocks, 7u) << "left alone when it does not fit";
  EXPECT_FALSE(bootFileSizeBlocks(32u << 20, blocks));
  EXPECT_FALSE(bootFileSizeBlocks(40u << 20, blocks));
  EXPECT_FALSE(bootFileSizeBlocks(0xFFFFFFFFu, blocks));
}

TEST_F(BootpReplyTest, ImagesTooBigForOption13GetNoBootFileSize) {
  store.addSized(143, 65534u * 512 + 511);
  ScopedBootImageStore scoped(store);
  std::vector<uint8_t> reply = replyFor(143, request("PXEClient", 7));
  const uint8_t largest[] = {13, 2, 0xFF, 0xFF, 1, 4, 255, 255, 255, 0, 255};
  ASSERT_EQ(reply.size(), 240 + sizeof largest);
  EXPECT_EQ(std::memcmp(reply.data() + 240, largest, sizeof largest), 0);

  store.addSized(143, 65535u * 512);
  reply = replyFor(143, request("PXEClient", 7));
  const uint8_t withoutSize[] = {1, 4, 255, 255, 255, 0, 255};
  ASSERT_EQ(reply.size(), 240 + sizeof withoutSize);
  EXPECT_EQ(std::memcmp(reply.data() + 240, withoutSize, sizeof withoutSize), 0);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(reply.data() + 108)), "/image") << "the file name stays";
}

TEST_F(BootpReplyTest, OtherClassesGetNoOptionsAndKeepTheFileField) {
  ScopedBootImageStore scoped(store);
  std::vector<uint8_t> bytes = request("Powerboot");
  std::memcpy(bytes.data() + 108, "keep-me", 7);
  std::vector<uint8_t> reply = replyFor(129, bytes);
  ASSERT_EQ(reply.size(), 241u);
  EXPECT_EQ(reply[240], 255);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(reply.data() + 108)), "keep-me");
  EXPECT_TRUE(store.lookups.empty());
  // No DHCP message type or server identifier anywhere in the options.
  EXPECT_EQ(std::count(reply.begin() + 240, reply.end(), 53), 0);
}

TEST_F(BootpReplyTest, LongBootFileNameIsBoundedAt128Bytes) {
  store.addSized(143, 10);
  ScopedBootImageStore scoped(store);
  std::vector<uint8_t> buffer(kBootpBufferSize, 0);
  std::vector<uint8_t> bytes = request("PXEClient", 7);
  std::memcpy(buffer.data(), bytes.data(), bytes.size());
  std::string name(200, 'n');
  buildBootpReply(buffer.data(), 143, 1, 2, 3, name);
  for (size_t i = 108; i < 236; ++i) EXPECT_EQ(buffer[i], 'n');
  EXPECT_EQ(buffer[236], 99) << "the cookie is left alone";
}

TEST_F(BootpReplyTest, ResponderBroadcastsToPort68) {
  store.addSized(143, 1000);
  ScopedBootImageStore scoped(store);
  FakeNetwork network;
  BootpResponder responder(network);
  responder.open("/image");
  ASSERT_NE(network.bootp, nullptr);
  EXPECT_EQ(network.bootp->localAddress, parseIpv4("192.168.88.2"));
  EXPECT_EQ(network.bootp->localPort, 67);
  CapturedLog log;
  std::vector<uint8_t> buffer(kBootpBufferSize, 0);
  std::vector<uint8_t> bytes = request("PXEClient", 7);
  std::memcpy(buffer.data(), bytes.data(), bytes.size());
  ASSERT_TRUE(responder.classify(buffer.data(), bytes.size()));
  ASSERT_TRUE(responder.reply(buffer.data(), parseIpv4("192.168.88.1")));
  ASSERT_EQ(network.sent.size(), 1u);
  EXPECT_EQ(network.sent[0].address, 0xFFFFFFFFu);
  EXPECT_EQ(network.sent[0].port, 68);
  EXPECT_EQ(network.sent[0].bytes.size(), 251u);
  network.bootp->failSends = true;
  EXPECT_FALSE(responder.reply(buffer.data(), parseIpv4("192.168.88.1")));
  // Reopening forgets the client.
  responder.open("/image");
  EXPECT_EQ(responder.clientClass(), kClassNone);
  EXPECT_EQ(responder.clientMac(), MacAddress{});
  responder.close();
  EXPECT_FALSE(responder.isOpen());
}

// A DHCPDISCOVER byte for byte as x86-64 UEFI firmware sends it: options 53
// (discover), 57 (maximum size), 55 (parameter list), 97 (machine id), 94
// (UNDI 3.0), 93 (architecture 7), then 60 with the long PXE vendor class.
std::vector<uint8_t> uefiDiscover() {
  std::vector<uint8_t> bytes = {
      0x01, 0x01, 0x06, 0x00, 0x5a, 0x3c, 0x19, 0xe2, 0x00, 0x04, 0x80, 0x00,  // op, htype, hlen, hops, xid, secs, flags
      0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,                          // ciaddr, yiaddr, siaddr, giaddr
      0x52, 0x54, 0x00, 0x12, 0x34, 0x56, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,        // chaddr
  };
  bytes.resize(236, 0);  // sname and file empty
  const uint8_t options[] = {
      0x63, 0x82, 0x53, 0x63,                                                  // magic cookie
      53, 1, 1,                                                                // DHCPDISCOVER
      57, 2, 0x05, 0xc0,                                                       // 1472 bytes
      55, 35, 1, 2, 3, 4, 5, 6, 12, 13, 15, 17, 18, 22, 23, 28, 40, 41, 42, 43, 50, 51, 54, 58, 59, 60, 66, 67, 97,
      128, 129, 130, 131, 132, 133, 134, 135,                                  // parameter request list
      97, 17, 0, 0x8a, 0x1d, 0x2b, 0x67, 0x0e, 0x31, 0x4f, 0x4a, 0x9c, 0x55, 0x72, 0x33, 0x1b, 0x46, 0xc0, 0x0f,
      94, 3, 1, 3, 0,                                                          // UNDI 3.0
      93, 2, 0, 7,                                                             // x86-64 UEFI
      60, 32, 'P', 'X', 'E', 'C', 'l', 'i', 'e', 'n', 't', ':', 'A', 'r', 'c', 'h', ':', '0', '0', '0', '0', '7', ':',
      'U', 'N', 'D', 'I', ':', '0', '0', '3', '0', '1', '6',                   // vendor class
      255,
  };
  bytes.insert(bytes.end(), std::begin(options), std::end(options));
  return bytes;
}

// The option codes of a BOOTP/DHCP message, in order, up to the end marker.
std::vector<uint8_t> optionCodes(const std::vector<uint8_t>& message) {
  std::vector<uint8_t> codes;
  size_t pos = 240;
  while (pos < message.size()) {
    uint8_t code = message[pos];
    codes.push_back(code);
    if (code == 255) break;
    if (code == 0) {
      ++pos;
      continue;
    }
    if (pos + 1 >= message.size()) break;
    pos += 2 + message[pos + 1];
  }
  return codes;
}

TEST_F(BootpReplyTest, UefiFirmwareDiscoverIsClass143AndGetsAPureBootpReply) {
  std::vector<uint8_t> discover = uefiDiscover();
  ASSERT_EQ(optionCodes(discover), (std::vector<uint8_t>{53, 57, 55, 97, 94, 93, 60, 255}));
  store.addSized(143, 4096);
  ScopedBootImageStore scoped(store);
  FakeNetwork network;
  BootpResponder responder(network);
  responder.open("/image");
  std::vector<uint8_t> buffer(kBootpBufferSize, 0);
  std::memcpy(buffer.data(), discover.data(), discover.size());
  ASSERT_TRUE(responder.classify(buffer.data(), discover.size()));
  EXPECT_EQ(responder.clientClass(), 143);
  ASSERT_TRUE(responder.reply(buffer.data(), parseIpv4("192.168.88.1")));
  ASSERT_EQ(network.sent.size(), 1u);
  const std::vector<uint8_t>& reply = network.sent[0].bytes;
  ASSERT_GE(reply.size(), 241u);
  EXPECT_EQ(reply[0], 2);
  EXPECT_EQ(std::memcmp(reply.data() + 4, discover.data() + 4, 4), 0);    // the firmware's xid
  EXPECT_EQ(std::memcmp(reply.data() + 28, discover.data() + 28, 6), 0);  // its MAC
  const uint8_t yiaddr[4] = {192, 168, 88, 1};
  EXPECT_EQ(std::memcmp(reply.data() + 16, yiaddr, 4), 0);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(reply.data() + 108)), "/image");
  std::vector<uint8_t> codes = optionCodes(reply);
  EXPECT_EQ(std::count(codes.begin(), codes.end(), 53), 0);
  EXPECT_EQ(std::count(codes.begin(), codes.end(), 54), 0);
  EXPECT_EQ(codes, (std::vector<uint8_t>{13, 1, 255}));
}

TEST(BootpPrint, PrintsEveryField) {
  CapturedLog log;
  std::vector<uint8_t> bytes = makeBootpRequest(kMac, "Etherboot", -1, 7);
  printBootpMessage(bytes.data(), bytes.size());
  for (const char* field :
       {"opcode: 1\n", "htype: 1\n", "hlen: 6\n", "hops: 0\n", "xid: 7\n", "secs: 0\n", "unused: 0\n",
        "ciaddr: 0.0.0.0\n", "yiaddr: ", "siaddr: ", "giaddr: ", "chaddr: 00 0c 42 01 02 03 00 ", "sname: \n",
        "file: \n", "cookie: 63 82 53 63 \n", "vend: 3c 09 45 74 68"}) {
    EXPECT_TRUE(log.contains(field)) << field;
  }
  printBootpMessage(bytes.data(), 10);
  EXPECT_TRUE(log.contains("bootp message too short: 10"));
}

}  // namespace
}  // namespace tarnlift::netboot
