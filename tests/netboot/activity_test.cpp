// What the boot services record for front ends: counts and the last clients.
#include "netboot/netboot_activity.h"

#include <gtest/gtest.h>

namespace tarnlift::netboot {
namespace {

TEST(NetbootActivity, CountsRepliesAndTransfersAndKeepsTheNewestClientsFirst) {
  NetbootActivity before = netbootActivity();
  for (int i = 0; i < 20; ++i) recordBootpReply("02:00:00:00:00:" + std::to_string(10 + i), i % 3);
  recordTftpTransfer(1000);
  recordTftpTransfer(24);
  NetbootActivity after = netbootActivity();
  EXPECT_EQ(after.bootpReplies - before.bootpReplies, 20u);
  EXPECT_EQ(after.tftpTransfers - before.tftpTransfers, 2u);
  EXPECT_EQ(after.tftpBytesSent - before.tftpBytesSent, 1024u);
  ASSERT_EQ(after.lastClients.size(), kLastClients);
  EXPECT_EQ(after.lastClients.front().mac, "02:00:00:00:00:29");
  EXPECT_EQ(after.lastClients.front().clientClass, 19 % 3);
  EXPECT_NE(after.lastClients.front().when, 0);
  EXPECT_EQ(after.lastClients.back().mac, "02:00:00:00:00:14");
}

}  // namespace
}  // namespace tarnlift::netboot
