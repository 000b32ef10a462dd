#include <io.h>
#include <windows.h>

#include <cstdio>

#include "install/headless.h"

namespace tarnlift::install {

bool terminalShowsLiveProgress() {
  if (_isatty(_fileno(stdout)) == 0) return false;
  // Consoles before Windows 10 and some hosts refuse the escape-sequence
  // mode; they get plain lines instead of sequences shown as text.
  HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD mode = 0;
  if (out == INVALID_HANDLE_VALUE || out == nullptr || !GetConsoleMode(out, &mode)) return false;
  if ((mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0) return true;
  return SetConsoleMode(out, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

}  // namespace tarnlift::install
