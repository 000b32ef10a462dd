// Whether a process still runs, for tests that end programs together with
// what they started. A process that has ended but was not yet reaped (a
// zombie, or one whose parent is gone) counts as ended.
#pragma once

#include <chrono>
#include <string>
#include <thread>

#ifdef _WIN32
#include <windows.h>
#else
#include <fstream>
#endif

namespace tarnlift::testing {

inline bool processAlive(unsigned long pid) {
  if (pid == 0) return false;
#ifdef _WIN32
  HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(pid));
  if (process == nullptr) return false;
  bool alive = WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
  CloseHandle(process);
  return alive;
#else
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(stat, text)) return false;
  size_t close = text.rfind(')');
  if (close == std::string::npos || close + 2 >= text.size()) return false;
  char state = text[close + 2];
  return state != 'Z' && state != 'X';
#endif
}

// Waits up to milliseconds for the process to be gone.
inline bool processGone(unsigned long pid, int milliseconds = 5000) {
  for (int waited = 0; waited < milliseconds; waited += 20) {
    if (!processAlive(pid)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return !processAlive(pid);
}

}  // namespace tarnlift::testing
