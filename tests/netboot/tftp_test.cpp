#include "netboot/tftp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>
#include <utility>

#include "netboot/interfaces.h"
#include "tests/app/capture_log.h"
#include "tests/netboot/fake_network.h"

namespace tarnlift::netboot {
namespace {

using tarnlift::testing::CapturedLog;
using testing::FakeNetwork;
using testing::FakeSocket;
using testing::SentDatagram;

std::vector<uint8_t> rrq(const std::string& file, const std::vector<std::pair<std::string, std::string>>& options = {},
                         const std::string& mode = "octet") {
  std::vector<uint8_t> bytes{0, 1};
  auto add = [&bytes](const std::string& text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
    bytes.push_back(0);
  };
  add(file);
  add(mode);
  for (const auto& [name, value] : options) {
    add(name);
    add(value);
  }
  return bytes;
}

std::vector<uint8_t> ack(uint16_t block) {
  return {0, 4, static_cast<uint8_t>(block >> 8), static_cast<uint8_t>(block)};
}

uint16_t blockOf(const SentDatagram& d) { return static_cast<uint16_t>(d.bytes[2] << 8 | d.bytes[3]); }

std::vector<uint8_t> content(size_t length) {
  std::vector<uint8_t> bytes(length);
  for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<uint8_t>(i * 31 + 7);
  return bytes;
}

// A client that acknowledges whatever the transfer sends and keeps the data.
struct Client {
  explicit Client(FakeNetwork& network) {
    network.onSend = [this](FakeSocket& socket, const SentDatagram& d) {
      if (socket.role != "transfer") return;
      ++packets;
      if (opcode(d) == kTftpOpOack) {
        oack = d.bytes;
        socket.deliver(ack(0));
      } else if (opcode(d) == kTftpOpData) {
        if (blockOf(d) == static_cast<uint16_t>(expected)) {
          received.insert(received.end(), d.bytes.begin() + 4, d.bytes.end());
          ++expected;
          blockSizes.push_back(d.bytes.size() - 4);
        }
        if (acknowledge) socket.deliver(ack(blockOf(d)));
      }
    };
  }
  std::vector<uint8_t> received;
  std::vector<uint8_t> oack;
  std::vector<size_t> blockSizes;
  uint32_t expected = 1;
  int packets = 0;
  bool acknowledge = true;
};

class TftpTest : public ::testing::Test {
 protected:
  bool transfer(const std::vector<uint8_t>& request, const std::vector<uint8_t>& bytes,
                DatagramSocket* tftpSocket = nullptr) {
    TftpTransfer t(network, kServer, kClient, 2000);
    bool done = t.send(request.data(), request.size(), bytes.data(), static_cast<uint32_t>(bytes.size()), tftpSocket);
    options = t.options();
    port = t.localPort();
    return done;
  }
  const uint32_t kServer = parseIpv4("192.168.88.2");
  const uint32_t kClient = parseIpv4("192.168.88.1");
  FakeNetwork network;
  CapturedLog log;
  TftpOptions options;
  uint16_t port = 0;
};

TEST(TftpParse, BlockSizeNegotiation) {
  CapturedLog log;
  auto parse = [](const std::vector<uint8_t>& r) { return parseTftpOptions(r.data(), r.size()); };
  TftpOptions o = parse(rrq("f", {{"BLKSIZE", "8192"}}));
  EXPECT_EQ(o.blockSize, 1468u);
  EXPECT_TRUE(o.wantsBlksize);
  EXPECT_TRUE(o.needsOack);
  EXPECT_FALSE(o.wantsTsize);
  EXPECT_EQ(parse(rrq("f", {{"blksize", "1024"}})).blockSize, 1024u);
  EXPECT_EQ(parse(rrq("f", {{"blksize", "0"}})).blockSize, 0u);
  EXPECT_EQ(parse(rrq("f", {{"blksize", "-5"}})).blockSize, 1468u);
  EXPECT_EQ(parse(rrq("f", {{"blksize", "99999999999"}})).blockSize, 1468u);
  EXPECT_EQ(parse(rrq("f", {{"blksize", "abc"}})).blockSize, 0u);
  EXPECT_EQ(parse(rrq("f", {{"blksize", "8"}})).blockSize, 8u);
  EXPECT_TRUE(log.contains("blksize 8192\n"));
  EXPECT_TRUE(log.contains("blksize 1024\n"));
}

TEST(TftpParse, TsizeAndOtherOptions) {
  auto parse = [](const std::vector<uint8_t>& r) { return parseTftpOptions(r.data(), r.size()); };
  TftpOptions o = parse(rrq("f", {{"TSize", "0"}, {"timeout", "3"}}));
  EXPECT_TRUE(o.wantsTsize);
  EXPECT_TRUE(o.needsOack);
  EXPECT_FALSE(o.wantsBlksize);
  EXPECT_EQ(o.blockSize, 512u);
  TftpOptions none = parse(rrq("f", {{"timeout", "3"}}));
  EXPECT_FALSE(none.needsOack);
  TftpReadRequest request;
  std::vector<uint8_t> bytes = rrq("/image", {}, "netascii");
  ASSERT_TRUE(parseTftpReadRequest(bytes.data(), bytes.size(), request));
  EXPECT_EQ(request.fileName, "/image");
  EXPECT_EQ(request.mode, "netascii");
  std::vector<uint8_t> write = bytes;
  write[1] = 2;
  EXPECT_FALSE(parseTftpReadRequest(write.data(), write.size(), request));
  const uint8_t tiny[3] = {0, 1, 0};
  EXPECT_FALSE(isTftpReadRequest(tiny, 3));
  // No NUL at all: the name runs to the end of the datagram.
  const uint8_t open[6] = {0, 1, 'a', 'b', 'c', 'd'};
  EXPECT_EQ(tftpFileName(open, 6), "abcd");
  TftpOptions cut = parseTftpOptions(open, 6);
  EXPECT_FALSE(cut.needsOack);
}

TEST(TftpOack, TsizeOnlyForNonEmptyContent) {
  TftpOptions o;
  o.wantsTsize = o.wantsBlksize = o.needsOack = true;
  o.blockSize = 1468;
  std::vector<uint8_t> oack = makeTftpOack(o, 4096);
  const char expected[] =
      "\0\6tsize\0"
      "4096\0blksize\0"
      "1468";
  EXPECT_EQ(oack, std::vector<uint8_t>(expected, expected + sizeof expected));
  std::vector<uint8_t> empty = makeTftpOack(o, 0);
  const char expectedEmpty[] =
      "\0\6blksize\0"
      "1468";
  EXPECT_EQ(empty, std::vector<uint8_t>(expectedEmpty, expectedEmpty + sizeof expectedEmpty));
}

TEST_F(TftpTest, ContentArrivesWholeToTheConfiguredAddress) {
  Client client(network);
  std::vector<uint8_t> bytes = content(5000);
  EXPECT_TRUE(transfer(rrq("x", {{"tsize", "0"}, {"blksize", "1400"}}), bytes));
  EXPECT_EQ(client.received, bytes);
  EXPECT_EQ(client.blockSizes, (std::vector<size_t>{1400, 1400, 1400, 800}));
  for (const SentDatagram& d : network.sent) {
    EXPECT_EQ(d.address, kClient);
    EXPECT_EQ(d.port, 2000);
  }
  const char oack[] =
      "\0\6tsize\0"
      "5000\0blksize\0"
      "1400";
  EXPECT_EQ(client.oack, std::vector<uint8_t>(oack, oack + sizeof oack));
  EXPECT_GE(port, 32768);
  EXPECT_TRUE(log.contains("sendFile 5000\n"));
}

TEST_F(TftpTest, ExactMultipleEndsWithoutAnEmptyBlock) {
  Client client(network);
  std::vector<uint8_t> bytes = content(1468);
  EXPECT_TRUE(transfer(rrq("x", {{"blksize", "1468"}}), bytes));
  std::vector<SentDatagram> sent = network.sentBy("transfer");
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(opcode(sent[0]), kTftpOpOack);
  EXPECT_EQ(opcode(sent[1]), kTftpOpData);
  EXPECT_EQ(sent[1].bytes.size(), 4u + 1468u);
  EXPECT_EQ(client.received, bytes);
  // Two full default blocks: two DATA packets, no third.
  network.sent.clear();
  Client second(network);
  EXPECT_TRUE(transfer(rrq("x", {{"tsize", "0"}}), content(1024)));
  EXPECT_EQ(network.sentBy("transfer").size(), 3u);
}

TEST_F(TftpTest, WithoutOptionsTheFirstTimeOutSendsBlockOne) {
  Client client(network);
  std::vector<uint8_t> bytes = content(700);
  EXPECT_TRUE(transfer(rrq("x"), bytes));
  EXPECT_EQ(network.timeouts, 1);
  std::vector<SentDatagram> sent = network.sentBy("transfer");
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(opcode(sent[0]), kTftpOpData);
  EXPECT_EQ(blockOf(sent[0]), 1);
  EXPECT_EQ(client.received, bytes);
}

TEST_F(TftpTest, FiftyTimeOutsBeforeTheFirstAnswer) {
  EXPECT_FALSE(transfer(rrq("x", {{"tsize", "0"}}), content(100)));
  EXPECT_EQ(network.timeouts, 50);
  EXPECT_EQ(network.lastWaitMs, 200u);
  // The OACK and 49 repetitions of it.
  std::vector<SentDatagram> sent = network.sentBy("transfer");
  EXPECT_EQ(sent.size(), 50u);
  for (const SentDatagram& d : sent) EXPECT_EQ(opcode(d), kTftpOpOack);
  EXPECT_TRUE(log.contains("TFTP timeout\n"));
  EXPECT_EQ(network.transfer, nullptr) << "the transfer socket is closed";
}

TEST_F(TftpTest, TenTimeOutsAfterAnyDatagram) {
  Client client(network);
  client.acknowledge = false;
  // The client acknowledges the OACK only, then falls silent.
  EXPECT_FALSE(transfer(rrq("x", {{"tsize", "0"}}), content(2000)));
  EXPECT_EQ(network.timeouts, 10);
  std::vector<SentDatagram> sent = network.sentBy("transfer");
  ASSERT_EQ(sent.size(), 11u);  // OACK, block 1, 9 repetitions of block 1
  for (size_t i = 1; i < sent.size(); ++i) EXPECT_EQ(blockOf(sent[i]), 1);
}

TEST_F(TftpTest, ErrorPacketResetsTheBudgetAndDoesNotEndTheTransfer) {
  int errors = 0;
  network.onSend = [&](FakeSocket& socket, const SentDatagram& d) {
    if (socket.role != "transfer") return;
    if (opcode(d) == kTftpOpOack) socket.deliver(ack(0));
    // After 5 silent repetitions of block 1 the client sends an ERROR.
    if (opcode(d) == kTftpOpData && network.timeouts == 5 && errors == 0) {
      ++errors;
      socket.deliver({0, 5, 0, 0, 'n', 'o', 0});
    }
  };
  EXPECT_FALSE(transfer(rrq("x", {{"tsize", "0"}}), content(2000)));
  EXPECT_EQ(errors, 1);
  // 5 before the error, then a fresh budget of 10.
  EXPECT_EQ(network.timeouts, 15);
}

// blksize 0 is negotiated as asked, but a client that keeps acknowledging
// must not keep the server busy: the transfer ends as failed at once.
TEST_F(TftpTest, BlockSizeZeroCannotHoldTheServer) {
  int packets = 0;
  network.onSend = [&](FakeSocket& socket, const SentDatagram& d) {
    if (socket.role != "transfer") return;
    // Acknowledge everything, but stop somewhere so that a server that never
    // gives up still lets this test end.
    if (++packets > 2000) return;
    if (opcode(d) == kTftpOpOack) socket.deliver(ack(0));
    if (opcode(d) == kTftpOpData) socket.deliver(ack(blockOf(d)));
  };
  EXPECT_FALSE(transfer(rrq("x", {{"blksize", "0"}}), content(100)));
  EXPECT_EQ(options.blockSize, 0u);
  std::vector<SentDatagram> sent = network.sentBy("transfer");
  ASSERT_FALSE(sent.empty());
  EXPECT_EQ(opcode(sent[0]), kTftpOpOack);
  const char kOack[] = "\0\6blksize\0" "0";
  EXPECT_EQ(std::string(sent[0].bytes.begin(), sent[0].bytes.end()), std::string(kOack, sizeof kOack));
  EXPECT_LE(sent.size(), 2u);
  EXPECT_TRUE(log.contains("TFTP timeout\n"));
  // An empty image needs no block at all and still completes.
  EXPECT_TRUE(transfer(rrq("x", {{"blksize", "0"}}), {}));
}

TEST_F(TftpTest, DuplicateAckResendsTheLastPacket) {
  int duplicates = 0;
  network.onSend = [&](FakeSocket& socket, const SentDatagram& d) {
    if (socket.role != "transfer") return;
    if (opcode(d) == kTftpOpOack) socket.deliver(ack(0));
    if (opcode(d) == kTftpOpData && blockOf(d) == 2 && duplicates == 0) {
      ++duplicates;
      socket.deliver(ack(1));  // the previous block again
      return;
    }
    if (opcode(d) == kTftpOpData) socket.deliver(ack(blockOf(d)));
  };
  EXPECT_TRUE(transfer(rrq("x", {{"blksize", "100"}}), content(250)));
  std::vector<SentDatagram> sent = network.sentBy("transfer");
  ASSERT_EQ(sent.size(), 5u);  // OACK, 1, 2, 2 again, 3
  EXPECT_EQ(blockOf(sent[2]), 2);
  EXPECT_EQ(blockOf(sent[3]), 2);
  EXPECT_EQ(sent[2].bytes, sent[3].bytes);
  EXPECT_EQ(blockOf(sent[4]), 3);
}

TEST_F(TftpTest, StrayDatagramsAreIgnored) {
  network.onSend = [&](FakeSocket& socket, const SentDatagram& d) {
    if (socket.role != "transfer") return;
    if (opcode(d) == kTftpOpOack) {
      socket.deliver({0, 4, 0});        // too short
      socket.deliver({0, 4, 0, 0, 0});  // too long
      socket.deliver({0, 3, 0, 0});     // not an ACK
      socket.deliver(ack(7));           // another block
      socket.deliver(ack(0));
    } else {
      socket.deliver(ack(blockOf(d)));
    }
  };
  EXPECT_TRUE(transfer(rrq("x", {{"tsize", "0"}}), content(10)));
  EXPECT_EQ(network.sentBy("transfer").size(), 2u);
}

TEST_F(TftpTest, RepeatedRequestIsDrainedAfterTheTransfer) {
  Client client(network);
  FakeSocket tftpSocket(network, "tftp", kServer, 69);
  std::vector<uint8_t> first = rrq("x", {{"tsize", "0"}});
  std::vector<uint8_t> second = rrq("x", {{"tsize", "0"}, {"blksize", "1024"}});
  tftpSocket.deliver(first);
  tftpSocket.deliver(second);
  EXPECT_TRUE(transfer(first, content(100), &tftpSocket));
  EXPECT_TRUE(tftpSocket.inbox.empty());
  EXPECT_TRUE(log.contains("flush tftpSk: " + std::to_string(first.size()) + "\n"));
  EXPECT_TRUE(log.contains("flush tftpSk: " + std::to_string(second.size()) + "\n"));
}

TEST_F(TftpTest, BlockNumbersWrapAt16Bits) {
  Client client(network);
  std::vector<uint8_t> bytes = content(70000);
  EXPECT_TRUE(transfer(rrq("x", {{"blksize", "1"}}), bytes));
  EXPECT_EQ(client.received.size(), bytes.size());
  std::vector<SentDatagram> sent = network.sentBy("transfer");
  ASSERT_GT(sent.size(), 65536u);
  EXPECT_EQ(blockOf(sent[65535]), 65535);
  EXPECT_EQ(blockOf(sent[65536]), 0);
}

TEST_F(TftpTest, SelectErrorIsFatal) {
  EXPECT_EXIT(
      {
        tarnlift::testing::fatalToStderr();
        network.failWait = true;
        transfer(rrq("x"), content(10));
      },
      ::testing::ExitedWithCode(1), "BOX\\[select failed");
}

// A client that asked for a window of blocks (RFC 7440): it acknowledges
// after each window of blocks in order and after the last (short) block; a
// block out of order makes it acknowledge the last one it has, once. Its own
// time-out (which the fake network runs at each of the server's) repeats
// its last acknowledgement. Data blocks and acknowledgements can be lost on
// the way by their count (1 is the first), acknowledgements can arrive twice.
struct WindowClient {
  WindowClient(FakeNetwork& fakeNetwork, uint32_t windowSize, uint32_t size)
      : window(windowSize), blockSize(size), network(fakeNetwork) {
    network.onSend = [this](FakeSocket& socket, const SentDatagram& d) {
      if (socket.role != "transfer") return;
      if (opcode(d) == kTftpOpOack) {
        oack = d.bytes;
        acknowledge(socket, 0);
      } else if (opcode(d) == kTftpOpData) {
        ++dataPackets;
        if (lostData.count(dataPackets) != 0) return;
        receive(socket, d);
      }
    };
    network.onIdle = [this] {
      ++clientTimeouts;
      if (network.transfer != nullptr && !oack.empty()) acknowledge(*network.transfer, lastAcked);
    };
  }
  void receive(FakeSocket& socket, const SentDatagram& d) {
    size_t size = d.bytes.size() - 4;
    if (blockOf(d) != static_cast<uint16_t>(expected)) {
      if (!gapReported && blockOf(d) != static_cast<uint16_t>(expected - 1)) {
        gapReported = true;
        inWindow = 0;
        acknowledge(socket, static_cast<uint16_t>(expected - 1));
      }
      return;
    }
    gapReported = false;
    received.insert(received.end(), d.bytes.begin() + 4, d.bytes.end());
    ++expected;
    ++inWindow;
    if (inWindow == window || size < blockSize) {
      inWindow = 0;
      acknowledge(socket, static_cast<uint16_t>(expected - 1));
    }
  }
  void acknowledge(FakeSocket& socket, uint16_t block) {
    lastAcked = block;
    ++acksSent;
    if (lostAcks.count(acksSent) != 0) return;
    socket.deliver(ack(block));
    if (duplicateAcks) socket.deliver(ack(block));
  }
  uint32_t window;
  uint32_t blockSize;
  FakeNetwork& network;
  std::vector<uint8_t> received;
  std::vector<uint8_t> oack;
  std::set<int> lostData;
  std::set<int> lostAcks;
  bool duplicateAcks = false;
  uint32_t expected = 1;
  uint32_t inWindow = 0;
  bool gapReported = false;
  uint16_t lastAcked = 0;
  int dataPackets = 0;
  int acksSent = 0;
  int clientTimeouts = 0;
};

std::vector<uint8_t> oackWith(const std::vector<std::pair<std::string, std::string>>& options) {
  std::vector<uint8_t> oack{0, 6};
  for (const auto& [name, value] : options) {
    for (const std::string& text : {name, value}) {
      for (char c : text) oack.push_back(static_cast<uint8_t>(c));
      oack.push_back(0);
    }
  }
  return oack;
}

TEST(TftpParse, WindowSizeIsGrantedUpTo64AndInvalidValuesAreIgnored) {
  CapturedLog log;
  auto parse = [](const std::vector<uint8_t>& r) { return parseTftpOptions(r.data(), r.size()); };
  TftpOptions none = parse(rrq("f"));
  EXPECT_FALSE(none.wantsWindowsize);
  EXPECT_EQ(none.windowSize, 1u);
  for (auto [asked, granted] : std::vector<std::pair<std::string, uint32_t>>{
           {"1", 1}, {"4", 4}, {"16", 16}, {"64", 64}, {"65", 64}, {"1000", 64}, {"65535", 64}}) {
    TftpOptions o = parse(rrq("f", {{"WindowSize", asked}}));
    EXPECT_TRUE(o.wantsWindowsize) << asked;
    EXPECT_TRUE(o.needsOack) << asked;
    EXPECT_EQ(o.windowSize, granted) << asked;
  }
  // RFC 7440: valid values are 1 to 65535; the option is ignored otherwise.
  for (const char* invalid : {"0", "65536", "-4", "abc", "99999999999"}) {
    TftpOptions o = parse(rrq("f", {{"windowsize", invalid}}));
    EXPECT_FALSE(o.wantsWindowsize) << invalid;
    EXPECT_FALSE(o.needsOack) << invalid;
    EXPECT_EQ(o.windowSize, 1u) << invalid;
  }
  EXPECT_TRUE(log.contains("windowsize 1000 granted 64\n"));
  EXPECT_TRUE(log.contains("windowsize 4 granted 4\n"));
  EXPECT_TRUE(log.contains("windowsize 0 ignored\n"));
  TftpOptions o = parse(rrq("f", {{"blksize", "1468"}, {"windowsize", "1000"}}));
  std::vector<uint8_t> packet = makeTftpOack(o, 0);
  EXPECT_EQ(packet, oackWith({{"blksize", "1468"}, {"windowsize", "64"}}));
}

class TftpWindowTest : public TftpTest, public ::testing::WithParamInterface<uint32_t> {};

// Whole windows of 1, 4, 16 and 64 blocks, one acknowledgement each, then a
// short last window: the content arrives whole, with no retransmission.
TEST_P(TftpWindowTest, SendsAWindowPerAcknowledgement) {
  uint32_t window = GetParam();
  WindowClient client(network, window, 512);
  const uint32_t blocks = window * 3 + 2;  // three whole windows and a short one
  std::vector<uint8_t> bytes = content((blocks - 1) * 512 + 100);
  ASSERT_TRUE(transfer(rrq("x", {{"tsize", "0"}, {"windowsize", std::to_string(window)}}), bytes));
  EXPECT_EQ(client.received, bytes);
  EXPECT_EQ(client.oack, oackWith({{"tsize", std::to_string(bytes.size())}, {"windowsize", std::to_string(window)}}));
  EXPECT_EQ(client.dataPackets, static_cast<int>(blocks)) << "no block sent twice";
  EXPECT_EQ(client.acksSent, static_cast<int>(1 + (blocks + window - 1) / window))
      << "the OACK's, one per whole window and one for the short last one";
  EXPECT_EQ(network.timeouts, 0);
  // Between two acknowledgements the server sends one window.
  std::vector<SentDatagram> sent = network.sentBy("transfer");
  ASSERT_EQ(sent.size(), 1 + blocks);
  for (uint32_t i = 1; i <= blocks; ++i) EXPECT_EQ(blockOf(sent[i]), static_cast<uint16_t>(i));
  EXPECT_EQ(options.windowSize, window);
}

INSTANTIATE_TEST_SUITE_P(Windows, TftpWindowTest, ::testing::Values(1u, 4u, 16u, 64u));

// Asking for 1000 gets 64 blocks per acknowledgement, announced in the OACK.
TEST_F(TftpTest, WindowSizeAboveTheCapGetsTheCap) {
  WindowClient client(network, 64, 1468);
  std::vector<uint8_t> bytes = content(1468 * 200 + 1);
  ASSERT_TRUE(transfer(rrq("x", {{"blksize", "1468"}, {"windowsize", "1000"}}), bytes));
  EXPECT_EQ(client.received, bytes);
  EXPECT_EQ(client.oack, oackWith({{"blksize", "1468"}, {"windowsize", "64"}}));
  EXPECT_EQ(client.acksSent, 1 + 4) << "windows of 64, 64, 64 and 9 blocks";
  EXPECT_EQ(network.timeouts, 0);
}

// Windowsize 0 is invalid: no windowsize in the OACK and the transfer goes
// in lock step, as for a client that does not ask.
TEST_F(TftpTest, WindowSizeZeroIsIgnored) {
  Client client(network);
  std::vector<uint8_t> bytes = content(512 * 5 + 3);
  ASSERT_TRUE(transfer(rrq("x", {{"tsize", "0"}, {"windowsize", "0"}}), bytes));
  EXPECT_EQ(client.received, bytes);
  EXPECT_EQ(client.oack, oackWith({{"tsize", std::to_string(bytes.size())}}));
  EXPECT_EQ(options.windowSize, 1u);
}

// A window of 1 granted moves the same datagrams as no window at all, the
// OACK apart.
TEST_F(TftpTest, WindowOfOneIsTheLockStep) {
  std::vector<uint8_t> bytes = content(512 * 7 + 11);
  std::vector<std::vector<uint8_t>> runs[2];
  for (int run = 0; run < 2; ++run) {
    FakeNetwork fresh;
    Client client(fresh);
    TftpTransfer t(fresh, kServer, kClient, 2000);
    std::vector<uint8_t> request =
        run == 0 ? rrq("x", {{"blksize", "512"}}) : rrq("x", {{"blksize", "512"}, {"windowsize", "1"}});
    ASSERT_TRUE(t.send(request.data(), request.size(), bytes.data(), static_cast<uint32_t>(bytes.size()), nullptr));
    for (const SentDatagram& d : fresh.sentBy("transfer")) runs[run].push_back(d.bytes);
  }
  ASSERT_EQ(runs[0].size(), runs[1].size());
  EXPECT_EQ(runs[1][0], oackWith({{"blksize", "512"}, {"windowsize", "1"}}));
  for (size_t i = 1; i < runs[0].size(); ++i) EXPECT_EQ(runs[0][i], runs[1][i]) << i;
}

// Block 3 of the first window of 4 is lost: the client acknowledges block 2
// when block 4 arrives, and the server goes on from block 3 at once.
TEST_F(TftpTest, LostBlockInsideAWindowResumesAfterTheAcknowledgedBlock) {
  WindowClient client(network, 4, 512);
  client.lostData = {3};
  std::vector<uint8_t> bytes = content(512 * 10 + 5);
  ASSERT_TRUE(transfer(rrq("x", {{"windowsize", "4"}}), bytes));
  EXPECT_EQ(client.received, bytes);
  EXPECT_EQ(network.timeouts, 0) << "no time-out needed";
  std::vector<uint16_t> order;
  for (const SentDatagram& d : network.sentBy("transfer")) {
    if (opcode(d) == kTftpOpData) order.push_back(blockOf(d));
  }
  std::vector<uint16_t> expected{1, 2, 3, 4, 3, 4, 5, 6, 7, 8, 9, 10, 11};
  EXPECT_EQ(order, expected);
}

// The acknowledgement of the first window is lost: the server's time-out
// sends the window again from the block after the last acknowledged one
// (the OACK's 0), the client's repeats its acknowledgement, and the
// transfer goes on.
TEST_F(TftpTest, LostAcknowledgementResendsTheWindow) {
  WindowClient client(network, 4, 512);
  client.lostAcks = {2};  // the first is the OACK's
  std::vector<uint8_t> bytes = content(512 * 9 + 5);
  ASSERT_TRUE(transfer(rrq("x", {{"windowsize", "4"}}), bytes));
  EXPECT_EQ(client.received, bytes);
  EXPECT_EQ(network.timeouts, 1);
  std::vector<uint16_t> order;
  for (const SentDatagram& d : network.sentBy("transfer")) {
    if (opcode(d) == kTftpOpData) order.push_back(blockOf(d));
  }
  std::vector<uint16_t> expected{1, 2, 3, 4, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  EXPECT_EQ(order, expected);
}

// Every acknowledgement arrives twice: the copies start no extra windows.
TEST_F(TftpTest, DuplicateAcknowledgementsStartNoExtraWindow) {
  WindowClient client(network, 8, 512);
  client.duplicateAcks = true;
  std::vector<uint8_t> bytes = content(512 * 40 + 1);
  ASSERT_TRUE(transfer(rrq("x", {{"windowsize", "8"}}), bytes));
  EXPECT_EQ(client.received, bytes);
  EXPECT_EQ(client.dataPackets, 41) << "each block once";
  EXPECT_EQ(network.timeouts, 0);
}

// An acknowledgement of a block never sent, or long acknowledged, is stray.
TEST_F(TftpTest, StrayAcknowledgementsDoNotMoveTheWindow) {
  WindowClient client(network, 4, 512);
  std::vector<uint8_t> bytes = content(512 * 6 + 1);
  network.onOpen = [](FakeSocket& socket) {
    socket.deliver(ack(0));
    socket.deliver(ack(300));    // far ahead
    socket.deliver(ack(65535));  // behind
  };
  ASSERT_TRUE(transfer(rrq("x", {{"windowsize", "4"}}), bytes));
  EXPECT_EQ(client.received, bytes);
  EXPECT_EQ(client.dataPackets, 7);
}

// The waits of a windowed transfer with no answer: from the first one (50 ms
// after a datagram, 200 ms for the OACK), doubling up to 1.6 s, the last one
// cut to the silence allowed.
std::vector<uint32_t> windowedWaits(uint32_t silenceMs, uint32_t firstMs = kTftpWindowWaitMs) {
  std::vector<uint32_t> waits;
  uint32_t wait = firstMs, total = 0;
  while (total < silenceMs) {
    uint32_t next = std::min(wait, silenceMs - total);
    waits.push_back(next);
    total += next;
    wait = std::min(wait * 2, kTftpWindowMaxWaitMs);
  }
  return waits;
}

// With no answer at all, the OACK is repeated with growing gaps for 10 s,
// the first after 200 ms as in lock step.
TEST_F(TftpTest, WindowedTransferBacksOffAndGivesUpAfterTenSilentSeconds) {
  std::vector<uint32_t> waits;
  network.onIdle = [&] { waits.push_back(network.lastWaitMs); };
  std::vector<uint8_t> bytes = content(512 * 6 + 1);
  EXPECT_FALSE(transfer(rrq("x", {{"windowsize", "4"}}), bytes));
  std::vector<uint32_t> expected{200, 400, 800, 1600, 1600, 1600, 1600, 1600, 600};
  EXPECT_EQ(waits, expected);
  EXPECT_EQ(windowedWaits(kTftpWindowFirstSilenceMs, kTftpWaitMs), expected);
  EXPECT_TRUE(log.contains("TFTP timeout"));
  EXPECT_EQ(network.sentBy("transfer").size(), expected.size()) << "the OACK, and a repeat after each wait but the last";
}

// After any datagram the transfer waits 4 s of silence, backing off again
// from 50 ms; every repeat of the window leaves the client a longer gap to
// repeat its acknowledgement in.
TEST_F(TftpTest, WindowedTransferGivesUpAfterFourSilentSecondsFollowingADatagram) {
  WindowClient client(network, 4, 512);
  for (int i = 2; i < 100; ++i) client.lostAcks.insert(i);
  std::vector<uint32_t> waits;
  network.onIdle = [&] { waits.push_back(network.lastWaitMs); };
  std::vector<uint8_t> bytes = content(512 * 6 + 1);
  EXPECT_FALSE(transfer(rrq("x", {{"windowsize", "4"}}), bytes));
  EXPECT_EQ(waits, windowedWaits(kTftpWindowSilenceMs));
  std::vector<uint16_t> order;
  for (const SentDatagram& d : network.sentBy("transfer")) {
    if (opcode(d) == kTftpOpData) order.push_back(blockOf(d));
  }
  EXPECT_EQ(order.size(), 4 * waits.size()) << "the window, then again after each wait but the last";
}

// Each time the server waits in vain, notes how long it waited and lets the
// client repeat its last acknowledgement, as its own time-out would.
void recordWaitsAndRepeatAcks(FakeNetwork& network, WindowClient& client, std::vector<uint32_t>& waits) {
  network.onIdle = [&network, &client, &waits] {
    waits.push_back(network.lastWaitMs);
    if (network.transfer != nullptr) client.acknowledge(*network.transfer, client.lastAcked);
  };
}

// A lost acknowledgement costs 50 ms, not the 200 ms of lock step.
TEST_F(TftpTest, WindowedTransferResendsAfterFiftyMilliseconds) {
  WindowClient client(network, 4, 512);
  client.lostAcks = {2};
  std::vector<uint32_t> waits;
  recordWaitsAndRepeatAcks(network, client, waits);
  ASSERT_TRUE(transfer(rrq("x", {{"windowsize", "4"}}), content(512 * 9 + 5)));
  EXPECT_EQ(waits, std::vector<uint32_t>{kTftpWindowWaitMs});
}

// A lost acknowledgement of the OACK is waited for as in lock step: the OACK
// is repeated after 200 ms, never sooner, since a client slow to make room
// for the file must not get a second OACK (some abort on one).
TEST_F(TftpTest, WindowedTransferRepeatsTheOackAfterTheLockStepWait) {
  WindowClient client(network, 4, 512);
  client.lostAcks = {1};
  std::vector<uint32_t> waits;
  recordWaitsAndRepeatAcks(network, client, waits);
  std::vector<uint8_t> bytes = content(512 * 9 + 5);
  ASSERT_TRUE(transfer(rrq("x", {{"windowsize", "4"}}), bytes));
  EXPECT_EQ(waits, std::vector<uint32_t>{kTftpWaitMs});
  EXPECT_EQ(client.received, bytes);
  size_t oacks = 0;
  for (const SentDatagram& d : network.sentBy("transfer")) oacks += opcode(d) == kTftpOpOack;
  EXPECT_EQ(oacks, 2u) << "the OACK, and one repeat after the wait";
}

// Block numbers roll over to 0 after 65535 in windows too.
TEST_F(TftpTest, WindowedBlockNumbersWrapAt16Bits) {
  WindowClient client(network, 64, 2);
  std::vector<uint8_t> bytes = content(2 * 66000 + 1);
  ASSERT_TRUE(transfer(rrq("x", {{"blksize", "2"}, {"windowsize", "64"}}), bytes));
  EXPECT_EQ(client.received, bytes);
  std::vector<SentDatagram> sent = network.sentBy("transfer");
  ASSERT_GT(sent.size(), 65537u);
  EXPECT_EQ(blockOf(sent[65535]), 65535);
  EXPECT_EQ(blockOf(sent[65536]), 0);
  EXPECT_EQ(network.timeouts, 0);
}

TEST(TftpPort, AlwaysInTheUpperHalf) {
  std::srand(3);
  for (int i = 0; i < 1000; ++i) EXPECT_GE(TftpTransfer::randomTransferPort(), 32768);
}

}  // namespace
}  // namespace tarnlift::netboot
