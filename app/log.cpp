#include "app/log.h"

#include <chrono>
#include <cstdio>
#include <iostream>
#include <mutex>

namespace tarnlift::app {
namespace {

std::ostream* gLogStream = &std::cout;
LogListener gListener = nullptr;
void* gListenerContext = nullptr;
LogDetail gDetail = LogDetail::Normal;
bool gPriorityPrefixes = false;
const std::chrono::steady_clock::time_point gStart = std::chrono::steady_clock::now();

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

void setLogDetail(LogDetail detail) {
  std::lock_guard<std::mutex> lock(logMutex());
  gDetail = detail;
}

void setLogPriorityPrefixes(bool on) {
  std::lock_guard<std::mutex> lock(logMutex());
  gPriorityPrefixes = on;
}

void setLogListener(LogListener listener, void* context) {
  std::lock_guard<std::mutex> lock(logMutex());
  gListener = listener;
  gListenerContext = context;
}

LogLine::~LogLine() {
  std::string line = text_.str();
  std::lock_guard<std::mutex> lock(logMutex());
  if (gPriorityPrefixes && gDetail != LogDetail::Quiet) *gLogStream << '<' << static_cast<int>(priority_) << '>';
  if (gDetail == LogDetail::Verbose) {
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - gStart).count();
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "[%10.3f] ", seconds);
    *gLogStream << stamp;
  }
  if (gDetail != LogDetail::Quiet) *gLogStream << line << '\n' << std::flush;
  if (gListener != nullptr) gListener(line, gListenerContext);
}

}  // namespace tarnlift::app
