#include "app/log.h"

#include <iostream>
#include <mutex>

namespace tarnlift {
namespace {

std::ostream* gLogStream = &std::cout;

std::mutex& logMutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace

std::ostream& logStream() { return *gLogStream; }

void setLogStream(std::ostream& stream) {
  std::lock_guard<std::mutex> lock(logMutex());
  gLogStream = &stream;
}

LogLine::~LogLine() {
  text_ << '\n';
  std::lock_guard<std::mutex> lock(logMutex());
  *gLogStream << text_.str() << std::flush;
}

}  // namespace tarnlift
