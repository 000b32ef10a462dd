// Diagnostic lines: a short tag, the values, an end of line that flushes.
#pragma once

#include <ostream>
#include <sstream>
#include <string>

namespace tarnlift::app {

// The stream that log lines go to. It is std::cout unless a front end
// redirects it (the headless front end keeps standard output for results).
std::ostream& logStream();
void setLogStream(std::ostream& stream);

// How much of the log reaches the stream. Quiet: nothing (failures still
// reach their presenter, and listeners still get every line); Verbose: every
// line behind the seconds since start, for telling time-outs apart from
// slowness when reading a log afterwards.
enum class LogDetail { Quiet, Normal, Verbose };
void setLogDetail(LogDetail detail);

// Syslog priorities of log lines. Most lines are information; failures and
// warnings say so, so that a journal can filter them.
enum class LogPriority { Error = 3, Warning = 4, Info = 6 };

// Puts each line's priority in front as "<N>", as the journal reads a
// service's standard error. Off by default.
void setLogPriorityPrefixes(bool on);

// Also hands every finished line (without its end of line) to listener, on
// the thread that wrote it, after the line went to the stream; a listener
// must be quick and must not log. Null: none.
using LogListener = void (*)(const std::string& line, void* context);
void setLogListener(LogListener listener, void* context);

// Collects one line and writes it whole when it goes out of scope, so lines
// from different threads never interleave within a line.
class LogLine {
 public:
  LogLine() = default;
  explicit LogLine(LogPriority priority) : priority_(priority) {}
  LogLine(const LogLine&) = delete;
  LogLine& operator=(const LogLine&) = delete;
  ~LogLine();

  template <typename T>
  LogLine& operator<<(const T& value) {
    text_ << value;
    return *this;
  }

 private:
  std::ostringstream text_;
  LogPriority priority_ = LogPriority::Info;
};

inline LogLine logLine() { return {}; }
inline LogLine logLine(LogPriority priority) { return LogLine(priority); }

}  // namespace tarnlift::app
