#include <windows.h>
#include <winsock2.h>

#include <cstdio>
#include <iostream>

#include "app/failure.h"

namespace tarnlift::app {

uint32_t lastSystemError() { return GetLastError(); }
void setLastSystemError(uint32_t code) { SetLastError(code); }

uint32_t lastSocketError() { return static_cast<uint32_t>(WSAGetLastError()); }

std::string systemErrorText(uint32_t code) {
  char buffer[1024] = {};
  FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code,
                 MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), buffer, sizeof buffer - 1, nullptr);
  return buffer;
}

void showFatalBox(const std::string& text) { MessageBoxA(nullptr, text.c_str(), "Error", MB_ICONERROR | MB_OK); }

void exitProcessNow(int code) {
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  ExitProcess(static_cast<UINT>(code));
}

}  // namespace tarnlift::app
