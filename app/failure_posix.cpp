#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "app/failure.h"

namespace tarnlift::app {

uint32_t lastSystemError() { return static_cast<uint32_t>(errno); }
void setLastSystemError(uint32_t code) { errno = static_cast<int>(code); }

// Sockets report through errno like every other call.
uint32_t lastSocketError() { return static_cast<uint32_t>(errno); }

std::string systemErrorText(uint32_t code) {
  if (code == 0) return "Success";
  char buffer[1024] = {};
  // The GNU variant may return a static string instead of filling buffer.
  const char* text = strerror_r(static_cast<int>(code), buffer, sizeof buffer);
  return text != nullptr ? text : "";
}

// There is no window on this platform: the box is the text on standard error.
void showFatalBox(const std::string& text) { std::cerr << "Error: " << text << std::endl; }

void exitProcessNow(int code) {
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  _exit(code);
}

}  // namespace tarnlift::app
