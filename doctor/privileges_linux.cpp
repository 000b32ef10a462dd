#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <string>

#include "doctor/privileges.h"

namespace tarnlift::doctor {
namespace {

constexpr int kCapNetBindService = 10;

// The effective capabilities of this process, from /proc/self/status.
bool effectiveCapabilities(uint64_t& capabilities) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("CapEff:", 0) == 0) {
      capabilities = std::stoull(line.substr(7), nullptr, 16);
      return true;
    }
  }
  return false;
}

// The lowest port anyone may bind (the sysctl that lets a host drop the rule).
int unprivilegedPortStart() {
  std::ifstream file("/proc/sys/net/ipv4/ip_unprivileged_port_start");
  int port = 1024;
  if (!(file >> port)) return 1024;
  return port;
}

}  // namespace

std::string missingServerPrivileges(bool netboot) {
  if (!netboot || unprivilegedPortStart() <= 67) return {};
  uint64_t capabilities = 0;
  if (!effectiveCapabilities(capabilities)) return {};  // cannot tell: the bind will say
  if ((capabilities >> kCapNetBindService) & 1) return {};
  return "network booting binds UDP ports 67 and 69, which needs root or the capability CAP_NET_BIND_SERVICE; "
         "this process (user " +
         std::to_string(::geteuid()) +
         ") has neither: run it as root, or grant it (AmbientCapabilities=CAP_NET_BIND_SERVICE in a systemd unit, "
         "setpriv --ambient-caps +net_bind_service, or setcap cap_net_bind_service+ep on the program)";
}

}  // namespace tarnlift::doctor
