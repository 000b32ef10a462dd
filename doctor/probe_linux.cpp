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
#include <cstring>

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

class LinuxProbeChannel : public ProbeChannel {
 public:
  bool open(const std::string& interfaceName, std::string& why) {
    unsigned index = if_nametoindex(interfaceName.c_str());
    if (index == 0) {
      why = "no interface named " + interfaceName;
      return false;
    }
    packet_.fd = socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_IP));
    if (packet_.fd < 0) {
      why = errnoText("cannot open a packet socket (it needs root or CAP_NET_RAW)");
      return false;
    }
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_protocol = htons(ETH_P_IP);
    link.sll_ifindex = static_cast<int>(index);
    if (bind(packet_.fd, reinterpret_cast<sockaddr*>(&link), sizeof link) != 0) {
      why = errnoText("cannot listen on the interface");
      return false;
    }
    udp_.fd = socket(AF_INET, SOCK_DGRAM, 0);
    int on = 1;
    if (udp_.fd < 0 || setsockopt(udp_.fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        setsockopt(udp_.fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0 ||
        setsockopt(udp_.fd, SOL_SOCKET, SO_BINDTODEVICE, interfaceName.c_str(),
                   static_cast<socklen_t>(interfaceName.size())) != 0) {
      why = errnoText("cannot prepare the probe's socket");
      return false;
    }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(68);
    if (bind(udp_.fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
      why = errnoText("cannot bind UDP port 68");
      return false;
    }
    return true;
  }

  bool send(const std::vector<uint8_t>& discover, std::string& why) override {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(67);
    to.sin_addr.s_addr = INADDR_BROADCAST;
    if (sendto(udp_.fd, discover.data(), discover.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) < 0) {
      why = errnoText("cannot send the probe");
      return false;
    }
    return true;
  }

  bool receive(int waitMillis, ProbeDatagram& datagram) override {
    pollfd p{packet_.fd, POLLIN, 0};
    if (poll(&p, 1, waitMillis) <= 0) return false;
    uint8_t frame[2048];
    sockaddr_ll from{};
    socklen_t fromLength = sizeof from;
    ssize_t n = recvfrom(packet_.fd, frame, sizeof frame, 0, reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (n < static_cast<ssize_t>(sizeof(iphdr) + sizeof(udphdr))) return false;
    const auto* ip = reinterpret_cast<const iphdr*>(frame);
    size_t header = static_cast<size_t>(ip->ihl) * 4;
    if (ip->protocol != IPPROTO_UDP || header < sizeof(iphdr) || static_cast<size_t>(n) < header + sizeof(udphdr)) {
      return false;
    }
    const auto* u = reinterpret_cast<const udphdr*>(frame + header);
    if (ntohs(u->source) != 67 || ntohs(u->dest) != 68) return false;
    const uint8_t* payload = frame + header + sizeof(udphdr);
    datagram.bytes.assign(payload, static_cast<const uint8_t*>(frame) + n);
    datagram.source = ip->saddr;
    datagram.macKnown = from.sll_halen == 6;
    if (datagram.macKnown) std::memcpy(datagram.sourceMac.data(), from.sll_addr, 6);
    return true;
  }

 private:
  Fd packet_;
  Fd udp_;
};
}  // namespace

std::unique_ptr<ProbeChannel> openProbeChannel(const std::string& interfaceName, uint32_t, std::string& why) {
  auto channel = std::make_unique<LinuxProbeChannel>();
  if (!channel->open(interfaceName, why)) return nullptr;
  return channel;
}

}  // namespace tarnlift::doctor
