#include "net/udp_socket.h"

#include <gtest/gtest.h>

#include <string>

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

}  // namespace
}  // namespace tarnlift::net

namespace {
class SocketEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { tarnlift::net::startSocketLibrary(); }
};
const auto* const kSocketEnvironment = ::testing::AddGlobalTestEnvironment(new SocketEnvironment);
}  // namespace
