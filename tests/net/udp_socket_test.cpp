#include "net/udp_socket.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "net/address.h"

namespace tarnlift::net {
namespace {

TEST(UdpSocketLoopback, SendReceiveAndWait) {
  UdpSocket a, b;
  ASSERT_TRUE(a.open());
  ASSERT_TRUE(b.open());
  ASSERT_TRUE(a.bind(parseIpv4("127.0.0.1"), 0));
  ASSERT_TRUE(b.bind(parseIpv4("127.0.0.1"), 0));
  ASSERT_TRUE(b.setNonBlocking());
  char buffer[16];
  EXPECT_EQ(b.receiveFrom(buffer, sizeof buffer), -1);
  EXPECT_TRUE(UdpSocket::wouldBlock());
  EXPECT_FALSE(b.waitReadable(10));
  ASSERT_EQ(a.sendTo("hello", 5, parseIpv4("127.0.0.1"), b.localPort()), 5);
  EXPECT_TRUE(b.waitReadable(2000));
  uint32_t from = 0;
  uint16_t port = 0;
  ASSERT_EQ(b.receiveFrom(buffer, sizeof buffer, &from, &port), 5);
  EXPECT_EQ(from, parseIpv4("127.0.0.1"));
  EXPECT_EQ(port, a.localPort());
  EXPECT_EQ(std::string(buffer, 5), "hello");
}

// Datagrams of mixed sizes: runs of equal sizes (ended by a shorter one)
// that Linux sends as one segmented send, single ones, a long run.
std::vector<std::string> mixedDatagrams() {
  std::vector<std::string> out;
  for (int i = 0; i < 50; ++i) out.push_back(std::string(1472, static_cast<char>('a' + i % 26)));
  out.push_back("short one");
  out.push_back(std::string(24, 'r'));
  out.push_back(std::string(24, 's'));
  out.push_back(std::string(1472, 'x'));
  out.push_back(std::string(20, 'e'));
  out.push_back(std::string(3000, 'b'));  // too long for one frame: never segmented
  out.push_back(std::string(3000, 'c'));
  for (int i = 0; i < 5; ++i) out.push_back(std::string(100, static_cast<char>('0' + i)));
  return out;
}

size_t sendAll(UdpSocket& from, const std::vector<std::string>& datagrams, uint16_t port) {
  std::vector<UdpSocket::Outgoing> batch;
  for (const std::string& d : datagrams) batch.push_back({d.data(), d.size()});
  size_t taken = 0;
  for (size_t done = 0; done < batch.size(); done += UdpSocket::kBatchLimit) {
    size_t n = std::min(batch.size() - done, UdpSocket::kBatchLimit);
    taken += from.sendBatch(batch.data() + done, n, parseIpv4("127.0.0.1"), port);
  }
  return taken;
}

TEST(UdpSocketBatch, SentBatchArrivesAsTheSameDatagramsInOrder) {
  UdpSocket a, b;
  ASSERT_TRUE(a.open());
  ASSERT_TRUE(b.open());
  ASSERT_TRUE(a.bind(parseIpv4("127.0.0.1"), 0));
  ASSERT_TRUE(b.bind(parseIpv4("127.0.0.1"), 0));
  std::vector<std::string> sent = mixedDatagrams();
  EXPECT_EQ(sendAll(a, sent, b.localPort()), sent.size());
  std::vector<char> buffer(65536);
  for (size_t i = 0; i < sent.size(); ++i) {
    uint16_t port = 0;
    int length = b.receiveWithin(buffer.data(), buffer.size(), 2'000'000, nullptr, &port);
    ASSERT_EQ(length, static_cast<int>(sent[i].size())) << i;
    EXPECT_EQ(std::string(buffer.data(), static_cast<size_t>(length)), sent[i]) << i;
    EXPECT_EQ(port, a.localPort());
  }
  EXPECT_EQ(b.receiveWithin(buffer.data(), buffer.size(), 20'000, nullptr, nullptr), UdpSocket::kTimedOut);
}

TEST(UdpSocketBatch, BatchReceiveCutsJoinedRunsIntoTheSameDatagrams) {
  UdpSocket a, b;
  ASSERT_TRUE(a.open());
  ASSERT_TRUE(b.open());
  ASSERT_TRUE(a.bind(parseIpv4("127.0.0.1"), 0));
  ASSERT_TRUE(b.bind(parseIpv4("127.0.0.1"), 0));
  bool joined = b.receiveJoined();
  EXPECT_EQ(joined, UdpSocket::batchesAvailable());
  std::vector<std::string> sent = mixedDatagrams();
  EXPECT_EQ(sendAll(a, sent, b.localPort()), sent.size());
  std::vector<std::string> received;
  std::vector<char> area(UdpSocket::kBatchLimit * 65536);
  size_t joinedMessages = 0;
  while (received.size() < sent.size()) {
    UdpSocket::Incoming incoming[UdpSocket::kBatchLimit];
    for (size_t i = 0; i < UdpSocket::kBatchLimit; ++i) incoming[i] = {area.data() + i * 65536, 65536, -1, 0, 0, 0};
    int count = b.receiveBatchWithin(incoming, UdpSocket::kBatchLimit, 2'000'000);
    ASSERT_GT(count, 0) << received.size() << " of " << sent.size();
    for (int i = 0; i < count; ++i) {
      EXPECT_EQ(incoming[i].port, a.localPort());
      size_t total = static_cast<size_t>(incoming[i].length);
      size_t piece = incoming[i].segmentSize != 0 ? incoming[i].segmentSize : total;
      if (incoming[i].segmentSize != 0) ++joinedMessages;
      for (size_t offset = 0; offset < total; offset += piece) {
        received.emplace_back(static_cast<const char*>(incoming[i].buffer) + offset, std::min(piece, total - offset));
      }
    }
  }
  EXPECT_EQ(received, sent);
  // Linux hands over a run sent in one piece in one piece.
  if (joined) {
    EXPECT_GT(joinedMessages, 0u);
  }
}

}  // namespace
}  // namespace tarnlift::net

namespace {
class SocketEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { tarnlift::net::startSocketLibrary(); }
};
const auto* const kSocketEnvironment = ::testing::AddGlobalTestEnvironment(new SocketEnvironment);
}  // namespace
