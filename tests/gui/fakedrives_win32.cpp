// The real main window with two pretend local drives (Wine's drives are not
// disks): "DATA" (a fixed disk, E:) and "FLASH" (a removable medium, F:).
// An installation runs for three seconds, then is done; every start and
// cancel is logged with what the window handed over.
#include <winsock2.h>
#include <windows.h>

#include <commctrl.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>

#include "app/log.h"
#include "app/startup.h"
#include "localdisk/local_drives.h"
#include "resources/resource_ids.h"
#include "ui/main_window.h"

namespace {

using namespace tarnlift;

class FakeDriveInstaller : public DriveInstaller {
 public:
  std::vector<RouterRecord> listDrives() override {
    return {localdisk::makeDriveRow("DATA", 'E', 3), localdisk::makeDriveRow("FLASH", 'F', 2)};
  }
  void start(const RouterRecord& request) override {
    std::string files;
    for (const std::string& file : request.files) {
      size_t slash = file.find_last_of("\\/");
      files += (files.empty() ? "" : ",") + (slash == std::string::npos ? file : file.substr(slash + 1));
    }
    logLine() << "fake drive start: " << request.label << " files=" << files;
    started_[request.mac] = std::chrono::steady_clock::now();
  }
  bool status(const MacAddress& mac, SessionStatus& status) override {
    auto found = started_.find(mac);
    if (found == started_.end()) return false;
    auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - found->second);
    status.total = 3000;
    if (elapsed.count() < 3000) {
      status.status = kStatusInstalling;
      status.progress = static_cast<uint32_t>(elapsed.count());
      status.statusText = "Copying packages";
    } else {
      status.status = kStatusDone;
      status.progress = 3000;
      status.statusText = "Installation finished successfully";
    }
    return true;
  }
  void cancel(const MacAddress& mac) override {
    if (started_.erase(mac) != 0) logLine() << "fake drive cancel";
  }

 private:
  std::map<MacAddress, std::chrono::steady_clock::time_point> started_;
};

}  // namespace

int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR commandLine, int) {
  WSADATA data;
  WSAStartup(0x0102, &data);
  InitCommonControls();
  StartupOptions options = parseStartupCommandLine(commandLine != nullptr ? commandLine : "");
  HWND window = static_cast<HWND>(buildMainWindow(options, std::make_unique<FakeDriveInstaller>()));
  MSG message{};
  while (GetMessageA(&message, nullptr, 0, 0) > 0) {
    if (message.message == WM_KEYUP && message.wParam == VK_RETURN)
      PostMessageA(window, WM_COMMAND, MAKEWPARAM(IDC_PACKAGE_DIRECTORY, EN_KILLFOCUS), 0);
    if (!IsDialogMessageA(window, &message)) {
      TranslateMessage(&message);
      DispatchMessageA(&message);
    }
  }
  tearDownMainWindow();
  return static_cast<int>(message.wParam);
}
