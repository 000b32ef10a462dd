// Reports a fatal failure with the real message box, so that a test can read
// the box from another process and check the exit code that follows it.
#include <windows.h>

#include <string>

#include "app/failure.h"

int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR, int) {
  std::string message = "CreateThread";
  tarnlift::app::reportFailure(message, ERROR_FILE_NOT_FOUND, true);
  return 0;  // not reached: the fatal report ends the process with 1
}
