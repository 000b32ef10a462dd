#include <winsock2.h>

#include "app/failure.h"
#include "cli/command.h"

namespace tarnlift::cli {

void startSockets() {
  WSADATA data;
  if (WSAStartup(0x0102, &data) != 0) app::fatalFailure("WSA start failed");
}

}  // namespace tarnlift::cli
