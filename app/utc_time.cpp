#include "app/utc_time.h"

#include <chrono>
#include <cstdio>

namespace tarnlift::app {

std::string utcText(std::time_t when, UtcLayout layout) {
  using namespace std::chrono;
  const sys_seconds moment{seconds{static_cast<long long>(when)}};
  const sys_days day = floor<days>(moment);
  const year_month_day date{day};
  const hh_mm_ss<seconds> time{moment - day};
  const int y = static_cast<int>(date.year());
  const unsigned mo = static_cast<unsigned>(date.month());
  const unsigned d = static_cast<unsigned>(date.day());
  const auto h = static_cast<unsigned>(time.hours().count());
  const auto mi = static_cast<unsigned>(time.minutes().count());
  const auto s = static_cast<unsigned>(time.seconds().count());
  char text[48];
  if (layout == UtcLayout::FileStamp) {
    std::snprintf(text, sizeof text, "%04d%02u%02u-%02u%02u%02u", y, mo, d, h, mi, s);
  } else {
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02u:%02u:%02uZ", y, mo, d, h, mi, s);
  }
  return text;
}

std::string utcTextNow(UtcLayout layout) { return utcText(std::time(nullptr), layout); }

}  // namespace tarnlift::app
