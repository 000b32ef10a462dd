// The figures a router's row shows, computed once beside the row itself.
#include "install/router_record.h"

#include <gtest/gtest.h>

namespace tarnlift {
namespace {

using namespace install;

TEST(RouterRecordPercent, ProgressAgainstTheTotalRoundedDown) {
  RouterRecord record;
  EXPECT_EQ(record.percentDone(), 0u);  // no size known yet
  record.totalSize = 3;
  record.progress = 2;
  EXPECT_EQ(record.percentDone(), 66u);
  record.progress = 3;
  EXPECT_EQ(record.percentDone(), 100u);
}

TEST(RouterRecordPercent, NeverPastAHundredAndNoOverflowNearTheTop) {
  RouterRecord record;
  record.totalSize = 0xFFFFFFFFu;
  record.progress = 0xFFFFFFFEu;  // progress * 100 needs 64 bits
  EXPECT_EQ(record.percentDone(), 99u);
  record.totalSize = 10;
  record.progress = 25;  // a counter that ran past its total
  EXPECT_EQ(record.percentDone(), 100u);
}

}  // namespace
}  // namespace tarnlift
