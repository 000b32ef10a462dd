// Opens one of the main window's modal dialogs on its own, from the
// program's resources, and prints what the dialog returned, so that a test
// can drive it with guiprobe and check the result.
//   dialogdemo help
//   dialogdemo saveset NAME           prints "accepted 'NAME'" per OK, then "cancelled"
//   dialogdemo netboot 0|1 ADDRESS    prints "accepted ENABLED ADDRESS" or "cancelled"
#include <winsock2.h>
#include <windows.h>

#include <commctrl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "netboot/interfaces.h"
#include "ui/dialogs.h"

int main(int argc, char** argv) {
  InitCommonControls();
  WSADATA data;
  WSAStartup(0x0202, &data);
  if (argc >= 2 && std::strcmp(argv[1], "help") == 0) {
    std::printf("closed %d\n", tarnlift::showHelpDialog(nullptr));
    return 0;
  }
  if (argc >= 3 && std::strcmp(argv[1], "saveset") == 0) {
    // Reopens after every OK with the name typed last, as the window does
    // after a refusal, until the dialog is cancelled.
    std::string name = argv[2];
    while (tarnlift::askSetNameDialog(nullptr, name)) {
      std::printf("accepted '%s'\n", name.c_str());
      std::fflush(stdout);
    }
    std::printf("cancelled\n");
    return 0;
  }
  if (argc >= 4 && std::strcmp(argv[1], "netboot") == 0) {
    bool enabled = std::atoi(argv[2]) != 0;
    uint32_t address = tarnlift::netboot::parseIpv4(argv[3]);
    if (!tarnlift::showNetbootDialog(nullptr, enabled, address)) {
      std::printf("cancelled\n");
      return 0;
    }
    std::printf("accepted %d %s\n", enabled ? 1 : 0, tarnlift::netboot::formatIpv4(address).c_str());
    return 0;
  }
  std::fprintf(stderr, "usage: dialogdemo help | saveset NAME | netboot 0|1 ADDRESS\n");
  return 2;
}
