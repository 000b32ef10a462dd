// A small driver that reads and operates the program's windows from a second
// process, so that the window behaviour can be checked under Wine.
//   guiprobe box TITLE TIMEOUT_MS    prints the text of a message box, presses OK
//   guiprobe close TITLE TIMEOUT_MS  asks a top-level window to close
//   guiprobe keyup|keydown TITLE ID  posts an Enter release/press to control ID
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

HWND waitForWindow(const char* className, const char* title, DWORD timeoutMs) {
  for (DWORD waited = 0; waited <= timeoutMs; waited += 50) {
    HWND window = FindWindowA(className, title);
    if (window != nullptr) return window;
    Sleep(50);
  }
  return nullptr;
}

BOOL CALLBACK printWindow(HWND window, LPARAM) {
  char className[256] = {};
  char title[256] = {};
  GetClassNameA(window, className, sizeof className);
  GetWindowTextA(window, title, sizeof title);
  std::fprintf(stderr, "window class='%s' title='%s' visible=%d\n", className, title, IsWindowVisible(window) ? 1 : 0);
  return TRUE;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: guiprobe box|close|keyup|keydown TITLE TIMEOUT_MS|ID\n");
    return 2;
  }
  DWORD timeoutMs = static_cast<DWORD>(std::strtoul(argv[3], nullptr, 10));
  if (std::strcmp(argv[1], "box") == 0) {
    HWND box = waitForWindow("#32770", argv[2], timeoutMs);
    if (box == nullptr) {
      std::fprintf(stderr, "no message box titled '%s'; the top-level windows are:\n", argv[2]);
      EnumWindows(&printWindow, 0);
      return 1;
    }
    char text[1024] = {};
    GetDlgItemTextA(box, 0xFFFF, text, sizeof text);  // the box's message text
    std::printf("%s\n", text);
    std::fflush(stdout);
    PostMessageA(box, WM_COMMAND, MAKEWPARAM(IDOK, BN_CLICKED), 0);
    return 0;
  }
  if (std::strcmp(argv[1], "close") == 0) {
    HWND window = waitForWindow(nullptr, argv[2], timeoutMs);
    if (window == nullptr) {
      std::fprintf(stderr, "no window titled '%s'\n", argv[2]);
      return 1;
    }
    PostMessageA(window, WM_CLOSE, 0, 0);
    return 0;
  }
  if (std::strcmp(argv[1], "keyup") == 0 || std::strcmp(argv[1], "keydown") == 0) {
    HWND window = waitForWindow(nullptr, argv[2], 10000);
    HWND control = window != nullptr ? GetDlgItem(window, std::atoi(argv[3])) : nullptr;
    if (control == nullptr) {
      std::fprintf(stderr, "no control %s in '%s'\n", argv[3], argv[2]);
      return 1;
    }
    UINT message = std::strcmp(argv[1], "keyup") == 0 ? WM_KEYUP : WM_KEYDOWN;
    LPARAM flags = message == WM_KEYUP ? static_cast<LPARAM>(0xC0000001) : 1;
    PostMessageA(control, message, VK_RETURN, flags);
    return 0;
  }
  return 2;
}
