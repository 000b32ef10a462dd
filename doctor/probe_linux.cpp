// Linux: the probe is sent from UDP port 68 tied to the interface; answers
// are read from a packet socket on the same interface, which also gives the
// answering server's hardware address.
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>

#include "doctor/probe.h"

namespace tarnlift::doctor {
namespace {
struct Fd {
  int fd = -1;
  ~Fd() {
    if (fd >= 0) close(fd);
  }
};
std::string errnoText(const char* what) { return std::string(what) + ": " + std::strerror(errno); }
}  // namespace

bool probeBootServers(const std::string& interfaceName, uint32_t, const net::MacAddress& mac, int waitMillis,
                      std::vector<ProbeAnswer>& answers, std::string& why) {
  answers.clear();
  unsigned index = if_nametoindex(interfaceName.c_str());
  if (index == 0) {
    why = "no interface named " + interfaceName;
    return false;
  }
  Fd packet{socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_IP))};
  if (packet.fd < 0) {
    why = errnoText("cannot open a packet socket (it needs root or CAP_NET_RAW)");
    return false;
  }
  sockaddr_ll link{};
  link.sll_family = AF_PACKET;
  link.sll_protocol = htons(ETH_P_IP);
  link.sll_ifindex = static_cast<int>(index);
  if (bind(packet.fd, reinterpret_cast<sockaddr*>(&link), sizeof link) != 0) {
    why = errnoText("cannot listen on the interface");
    return false;
  }
  Fd udp{socket(AF_INET, SOCK_DGRAM, 0)};
  int on = 1;
  if (udp.fd < 0 || setsockopt(udp.fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      setsockopt(udp.fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0 ||
      setsockopt(udp.fd, SOL_SOCKET, SO_BINDTODEVICE, interfaceName.c_str(),
                 static_cast<socklen_t>(interfaceName.size())) != 0) {
    why = errnoText("cannot prepare the probe's socket");
    return false;
  }
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(68);
  if (bind(udp.fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    why = errnoText("cannot bind UDP port 68");
    return false;
  }
  uint32_t xid = std::random_device{}();
  std::vector<uint8_t> discover = makeDiscover(mac, xid);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(67);
  to.sin_addr.s_addr = INADDR_BROADCAST;
  if (sendto(udp.fd, discover.data(), discover.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) < 0) {
    why = errnoText("cannot send the probe");
    return false;
  }
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMillis);
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
    if (left <= 0) break;
    pollfd p{packet.fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
    uint8_t frame[2048];
    sockaddr_ll from{};
    socklen_t fromLength = sizeof from;
    ssize_t n = recvfrom(packet.fd, frame, sizeof frame, 0, reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (n < static_cast<ssize_t>(sizeof(iphdr) + sizeof(udphdr))) continue;
    const auto* ip = reinterpret_cast<const iphdr*>(frame);
    size_t header = static_cast<size_t>(ip->ihl) * 4;
    if (ip->protocol != IPPROTO_UDP || header < sizeof(iphdr) || static_cast<size_t>(n) < header + sizeof(udphdr)) {
      continue;
    }
    const auto* u = reinterpret_cast<const udphdr*>(frame + header);
    if (ntohs(u->source) != 67 || ntohs(u->dest) != 68) continue;
    ProbeAnswer answer;
    const uint8_t* payload = frame + header + sizeof(udphdr);
    size_t length = static_cast<size_t>(n) - header - sizeof(udphdr);
    if (!parseProbeAnswer(payload, length, xid, mac, ip->saddr, answer)) continue;
    if (from.sll_halen == 6) {
      std::memcpy(answer.serverMac.data(), from.sll_addr, 6);
      answer.macKnown = true;
    }
    bool seen = false;
    for (const ProbeAnswer& a : answers) seen = seen || (a.server == answer.server && a.offered == answer.offered);
    if (!seen) answers.push_back(answer);
  }
  return true;
}

}  // namespace tarnlift::doctor
