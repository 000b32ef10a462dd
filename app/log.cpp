#include "app/log.h"

#include <iostream>
#include <mutex>

namespace tarnlift {
namespace {

std::ostream* gLogStream = &std::cout;
LogListener gListener = nullptr;
void* gListenerContext = nullptr;

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

void setLogListener(LogListener listener, void* context) {
  std::lock_guard<std::mutex> lock(logMutex());
  gListener = listener;
  gListenerContext = context;
}

LogLine::~LogLine() {
  std::string line = text_.str();
  std::lock_guard<std::mutex> lock(logMutex());
  *gLogStream << line << '\n' << std::flush;
  if (gListener != nullptr) gListener(line, gListenerContext);
}

}  // namespace tarnlift
