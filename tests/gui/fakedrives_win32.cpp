// The real main window and the real local-drive installer over a made-up
// machine (Wine's drives are not disks): three physical disks, the system's
// disk 0 with C: and a data volume D:, disk 1 with E: (a fixed disk) and
// disk 2 with F: (a removable stick). The drive list, the refusal of D:
// (its disk holds the system) and the installation's steps are the
// program's own; only the formatter (three seconds, or until stopped), the
// files, the boot loader's installer and the boot images are pretend. Each
// package copied is logged as "fake copy: NAME".
#include <winsock2.h>
#include <windows.h>

#include <commctrl.h>

#include <memory>
#include <string>

#include "app/log.h"
#include "app/startup.h"
#include "localdisk/windows_drives.h"
#include "resources/resource_ids.h"
#include "tests/localdisk/fake_disk.h"
#include "tests/localdisk/fake_machines.h"
#include "ui/local_drive_installer.h"
#include "ui/main_window.h"

namespace {

using namespace tarnlift;
using namespace tarnlift::localdisk;
using namespace tarnlift::localdisk::testing;

class LoggingVolumeFiles : public FakeVolumeFiles {
 public:
  using FakeVolumeFiles::FakeVolumeFiles;
  bool copyInto(const DriveId& drive, const std::string& source, const std::string& name) override {
    app::logLine() << "fake copy: " << name;
    return FakeVolumeFiles::copyInto(drive, source, name);
  }
};

struct FakeMachine {
  FakeWindowsStorage storage;
  std::unique_ptr<DriveEnumerator> drives = makeWindowsDriveEnumerator(storage);
  std::unique_ptr<DiskAccess> access = makeWindowsDiskAccess(storage);
  FakeVolume volume;
  FakeFormatter formatter{volume};
  LoggingVolumeFiles files{volume};
  std::unique_ptr<SourceFiles> sources = makeSourceFiles();
  FakeRunnerLog runner;
  FakeStore images;
  DiskServices services;

  FakeMachine() {
    storage.disks.front().model = "Samsung SSD 860 EVO";
    storage.disks.front().bytes = 250059350016ull;
    storage.addVolume('D', kDriveFixed, 0);
    storage.addDisk(1, 1000204886016ull, "WDC WD10EZEX");
    storage.addVolume('E', kDriveFixed, 1);
    storage.addDisk(2, 16008609792ull, "SanDisk Cruzer Blade");
    storage.addVolume('F', kDriveRemovable, 2);
    formatter.runsMs = 3000;
    images.add(kImageDiskKernel, "kernel");
    images.add(kImageDiskInitrd, "initrd");
    images.add(kImageDiskSyslinuxConfig, "default linux\n");
    netboot::setBootImageStore(&images);
    services.devices = access.get();
    services.formatter = &formatter;
    services.files = &files;
    services.sources = sources.get();
    services.makeBootLoaderRunner = [this] { return std::make_unique<FakeRunner>(runner); };
  }
};

}  // namespace

int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR commandLine, int) {
  WSADATA data;
  WSAStartup(0x0102, &data);
  InitCommonControls();
  static FakeMachine machine;
  app::StartupOptions options = app::parseStartupCommandLine(commandLine != nullptr ? commandLine : "");
  HWND window = static_cast<HWND>(
      buildMainWindow(options, std::make_unique<ui::LocalDriveInstaller>(machine.drives.get(), &machine.services)));
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
