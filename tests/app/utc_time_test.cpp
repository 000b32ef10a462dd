#include "app/utc_time.h"

#include <gtest/gtest.h>

#include <ctime>
#include <regex>

namespace tarnlift {
namespace {

using namespace app;

TEST(UtcText, TheEpochInBothLayouts) {
  EXPECT_EQ(utcText(0), "1970-01-01T00:00:00Z");
  EXPECT_EQ(utcText(0, UtcLayout::FileStamp), "19700101-000000");
}

TEST(UtcText, AnOrdinaryMomentKeepsEveryFieldInItsPlace) {
  // 2026-01-02 03:04:05 UTC: each field differs, so a swapped field shows.
  EXPECT_EQ(utcText(1767323045), "2026-01-02T03:04:05Z");
  EXPECT_EQ(utcText(1767323045, UtcLayout::FileStamp), "20260102-030405");
}

TEST(UtcText, ALeapDayAndTheDayAfterIt) {
  EXPECT_EQ(utcText(1709251199), "2024-02-29T23:59:59Z");
  EXPECT_EQ(utcText(1709251200), "2024-03-01T00:00:00Z");
  // 2100 is not a leap year: 28 February is followed by 1 March.
  if constexpr (sizeof(std::time_t) >= 8) {
    EXPECT_EQ(utcText(static_cast<std::time_t>(4107542399LL)), "2100-02-28T23:59:59Z");
    EXPECT_EQ(utcText(static_cast<std::time_t>(4107542400LL)), "2100-03-01T00:00:00Z");
  }
}

TEST(UtcText, PastTheYear2038WhereTheClockIsWideEnough) {
  if constexpr (sizeof(std::time_t) < 8) {
    GTEST_SKIP() << "time_t is 32 bits here";
  } else {
    // One second after the largest signed 32-bit count.
    EXPECT_EQ(utcText(static_cast<std::time_t>(2147483648LL)), "2038-01-19T03:14:08Z");
    EXPECT_EQ(utcText(static_cast<std::time_t>(4102444800LL), UtcLayout::FileStamp), "21000101-000000");
  }
}

TEST(UtcText, NowHasTheIsoShape) {
  const std::string now = utcTextNow();
  EXPECT_TRUE(std::regex_match(now, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)"))) << now;
  const std::string stamp = utcTextNow(UtcLayout::FileStamp);
  EXPECT_TRUE(std::regex_match(stamp, std::regex(R"(\d{8}-\d{6})"))) << stamp;
}

}  // namespace
}  // namespace tarnlift
