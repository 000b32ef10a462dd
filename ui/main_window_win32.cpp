// A placeholder main window: a dialog that can be closed. Closing it ends
// the process at once with exit code 0, as the real window will.
#include <windows.h>

#include "app/log.h"
#include "resources/resource_ids.h"
#include "ui/main_window.h"

extern HINSTANCE gInstance;

namespace tarnlift {
namespace {

HWND gMainWindow = nullptr;

INT_PTR CALLBACK placeholderProc(HWND window, UINT message, WPARAM wParam, LPARAM /*lParam*/) {
  switch (message) {
    case WM_INITDIALOG: {
      HICON icon = LoadIconA(gInstance, MAKEINTRESOURCEA(IDI_TARNLIFT));
      SendMessageA(window, WM_SETICON, ICON_BIG, reinterpret_cast<LPARAM>(icon));
      return TRUE;
    }
    case WM_COMMAND:
      if (LOWORD(wParam) == IDC_PACKAGE_DIRECTORY && HIWORD(wParam) == EN_KILLFOCUS) {
        logLine() << "package directory final";
        return TRUE;
      }
      if (LOWORD(wParam) == IDCANCEL) {
        SendMessageA(window, WM_CLOSE, 0, 0);
        return TRUE;
      }
      return FALSE;
    case WM_CLOSE:
      PostQuitMessage(0);
      ExitProcess(0);
  }
  return FALSE;
}

}  // namespace

void* buildMainWindow(const StartupOptions& /*options*/) {
  gMainWindow = CreateDialogParamA(gInstance, MAKEINTRESOURCEA(IDD_MAIN), nullptr, &placeholderProc, 0);
  ShowWindow(gMainWindow, SW_SHOW);
  return gMainWindow;
}

void tearDownMainWindow() {
  if (gMainWindow != nullptr) DestroyWindow(gMainWindow);
  gMainWindow = nullptr;
}

}  // namespace tarnlift
