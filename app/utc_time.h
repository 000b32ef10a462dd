// Wall-clock time as UTC text, for the results lines, the web console's
// boot log and the names of files kept aside. The calendar comes from
// <chrono>'s arithmetic, not from gmtime and its shared buffer, so any
// thread may format a time at any moment.
#pragma once

#include <ctime>
#include <string>

namespace tarnlift::app {

enum class UtcLayout {
  Iso,        // 2026-01-02T03:04:05Z
  FileStamp,  // 20260102-030405: sorts by time, and no character a file system refuses
};

std::string utcText(std::time_t when, UtcLayout layout = UtcLayout::Iso);

// The current time as utcText gives it.
std::string utcTextNow(UtcLayout layout = UtcLayout::Iso);

}  // namespace tarnlift::app
