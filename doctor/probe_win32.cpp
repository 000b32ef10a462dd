// Windows: the probe goes out of UDP port 68 on the interface's address;
// the answering server's hardware address comes from an ARP request.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <iphlpapi.h>

#include <chrono>
#include <cstring>
#include <random>

#include "doctor/probe.h"

namespace tarnlift::doctor {

bool probeBootServers(const std::string&, uint32_t interfaceAddress, const net::MacAddress& mac, int waitMillis,
                      std::vector<ProbeAnswer>& answers, std::string& why) {
  answers.clear();
  SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  if (s == INVALID_SOCKET) {
    why = "cannot open a socket (error " + std::to_string(WSAGetLastError()) + ")";
    return false;
  }
  BOOL on = TRUE;
  setsockopt(s, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&on), sizeof on);
  setsockopt(s, SOL_SOCKET, SO_BROADCAST, reinterpret_cast<const char*>(&on), sizeof on);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(68);
  local.sin_addr.s_addr = interfaceAddress;
  if (bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    why = "cannot bind UDP port 68 (error " + std::to_string(WSAGetLastError()) + ")";
    closesocket(s);
    return false;
  }
  uint32_t xid = std::random_device{}();
  std::vector<uint8_t> discover = makeDiscover(mac, xid);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(67);
  to.sin_addr.s_addr = INADDR_BROADCAST;
  if (sendto(s, reinterpret_cast<const char*>(discover.data()), static_cast<int>(discover.size()), 0,
             reinterpret_cast<sockaddr*>(&to), sizeof to) == SOCKET_ERROR) {
    why = "cannot send the probe (error " + std::to_string(WSAGetLastError()) + ")";
    closesocket(s);
    return false;
  }
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMillis);
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
    if (left <= 0) break;
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(s, &readable);
    timeval wait{static_cast<long>(left / 1000), static_cast<long>((left % 1000) * 1000)};
    if (select(0, &readable, nullptr, nullptr, &wait) <= 0) continue;
    uint8_t buffer[1500];
    sockaddr_in from{};
    int fromLength = sizeof from;
    int n = recvfrom(s, reinterpret_cast<char*>(buffer), sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from),
                     &fromLength);
    if (n <= 0) continue;
    ProbeAnswer answer;
    if (!parseProbeAnswer(buffer, static_cast<size_t>(n), xid, mac, from.sin_addr.s_addr, answer)) continue;
    ULONG arp[2] = {};
    ULONG arpLength = 6;
    if (SendARP(from.sin_addr.s_addr, 0, arp, &arpLength) == NO_ERROR && arpLength == 6) {
      std::memcpy(answer.serverMac.data(), arp, 6);
      answer.macKnown = true;
    }
    bool seen = false;
    for (const ProbeAnswer& a : answers) seen = seen || (a.server == answer.server && a.offered == answer.offered);
    if (!seen) answers.push_back(answer);
  }
  closesocket(s);
  return true;
}

}  // namespace tarnlift::doctor
