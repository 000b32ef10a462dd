// Routes log lines into a string for the length of a test.
#pragma once

#include <iostream>
#include <sstream>
#include <string>

#include "app/failure.h"
#include "app/log.h"

namespace tarnlift::testing {

class CapturedLog {
 public:
  CapturedLog() { app::setLogStream(stream_); }
  ~CapturedLog() { app::setLogStream(std::cout); }
  std::string text() const { return stream_.str(); }
  bool contains(const std::string& part) const { return text().find(part) != std::string::npos; }

 private:
  std::ostringstream stream_;
};

// For death tests: log lines and the fatal box both go to standard error,
// where the death test matches them, and no window is shown.
inline void fatalToStderr() {
  app::setLogStream(std::cerr);
  app::setFatalPresenter([](const std::string& text) { std::cerr << "BOX[" << text << "]" << std::endl; });
}

}  // namespace tarnlift::testing
