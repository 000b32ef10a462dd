// Diagnostic lines: a short tag, the values, an end of line that flushes.
#pragma once

#include <ostream>
#include <sstream>

namespace tarnlift {

// The stream that log lines go to. It is std::cout unless a front end
// redirects it (the headless front end keeps standard output for results).
std::ostream& logStream();
void setLogStream(std::ostream& stream);

// Collects one line and writes it whole when it goes out of scope, so lines
// from different threads never interleave within a line.
class LogLine {
 public:
  LogLine() = default;
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
};

inline LogLine logLine() { return {}; }

}  // namespace tarnlift
