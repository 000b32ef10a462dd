// The Windows program's entry point: version line, single-instance guard,
// Winsock, the main window and the message loop.
#include <windows.h>
#include <winsock2.h>

// After windows.h, which it needs.
#include <commctrl.h>

#include <string>

#include "app/failure.h"
#include "app/log.h"
#include "app/single_instance.h"
#include "app/startup.h"
#include "app/version.h"
#include "resources/resource_ids.h"
#include "ui/main_window.h"

HINSTANCE gInstance = nullptr;

namespace {

// An unhandled fault ends the process at once, without the system's crash dialog.
LONG WINAPI endWithoutDialog(EXCEPTION_POINTERS* /*exception*/) { return EXCEPTION_EXECUTE_HANDLER; }

WPARAM runMessageLoop(HWND mainWindow) {
  MSG message{};
  for (;;) {
    BOOL got = GetMessageA(&message, nullptr, 0, 0);
    if (got == 0 || got == -1) break;
    // Releasing Enter anywhere makes the package directory text final, on
    // top of whatever the focused field does with the key.
    if (message.message == WM_KEYUP && message.wParam == VK_RETURN) {
      PostMessageA(mainWindow, WM_COMMAND, MAKEWPARAM(IDC_PACKAGE_DIRECTORY, EN_KILLFOCUS), 0);
    }
    if (!IsDialogMessageA(mainWindow, &message)) {
      TranslateMessage(&message);
      DispatchMessageA(&message);
    }
  }
  return message.wParam;
}

}  // namespace

int WINAPI WinMain(HINSTANCE instance, HINSTANCE /*previous*/, LPSTR commandLine, int /*show*/) {
  using namespace tarnlift;
  gInstance = instance;
  app::logLine() << "Version: " << app::kVersionText;
  SetUnhandledExceptionFilter(&endWithoutDialog);

  if (app::acquireSingleInstance() == app::InstanceGuard::AlreadyRunning) {
    MessageBoxA(nullptr, app::kAlreadyRunningText, "Error", MB_OK);
    return 0;
  }

  WSADATA socketData;
  if (WSAStartup(0x0102, &socketData) != 0) app::fatalFailure("WSA start failed");
  InitCommonControls();

  std::string line = commandLine != nullptr ? commandLine : "";
  app::StartupOptions options = app::parseStartupCommandLine(line);
  app::logStartupOptions(line, options);

  HWND mainWindow = static_cast<HWND>(buildMainWindow(options));
  WPARAM result = runMessageLoop(mainWindow);

  app::logLine() << "run out";
  tearDownMainWindow();
  app::logLine() << "exit";
  WSACleanup();
  return static_cast<int>(result);
}
