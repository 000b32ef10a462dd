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

class LinuxProbeChannel : public UdpProbeChannel {
 public:
  ~LinuxProbeChannel() override {
    if (packet_ >= 0) close(packet_);
  }

  bool open(const std::string& interfaceName, uint32_t interfaceAddress, std::string& why) {
    unsigned index = if_nametoindex(interfaceName.c_str());
    if (index == 0) {
      why = "no interface named " + interfaceName;
      return false;
    }
    packet_ = socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_IP));
    if (packet_ < 0) {
      why = std::string("cannot open a packet socket (it needs root or CAP_NET_RAW): ") + std::strerror(errno);
      return false;
    }
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_protocol = htons(ETH_P_IP);
    link.sll_ifindex = static_cast<int>(index);
    if (bind(packet_, reinterpret_cast<sockaddr*>(&link), sizeof link) != 0) {
      why = std::string("cannot listen on the interface: ") + std::strerror(errno);
      return false;
    }
    return UdpProbeChannel::open(interfaceName, interfaceAddress, why);
  }

  // The answers are read off the interface, with the sender's hardware
  // address; what reaches the UDP socket is left there.
  bool receive(int waitMillis, ProbeDatagram& datagram) override {
    pollfd p{packet_, POLLIN, 0};
    if (poll(&p, 1, waitMillis) <= 0) return false;
    uint8_t frame[2048];
    sockaddr_ll from{};
    socklen_t fromLength = sizeof from;
    ssize_t n = recvfrom(packet_, frame, sizeof frame, 0, reinterpret_cast<sockaddr*>(&from), &fromLength);
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
  int packet_ = -1;
};
}  // namespace

std::unique_ptr<ProbeChannel> openProbeChannel(const std::string& interfaceName, uint32_t interfaceAddress,
                                               std::string& why) {
  auto channel = std::make_unique<LinuxProbeChannel>();
  if (!channel->open(interfaceName, interfaceAddress, why)) return nullptr;
  return channel;
}

}  // namespace tarnlift::doctor
