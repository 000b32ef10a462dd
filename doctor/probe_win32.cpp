// Windows: the probe goes out of UDP port 68 on the interface's address and
// hears the answers there; the answering server's hardware address comes
// from an ARP request.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <iphlpapi.h>

#include <cstring>

#include "doctor/probe.h"

namespace tarnlift::doctor {
namespace {

class WindowsProbeChannel : public UdpProbeChannel {
 public:
  bool lookUpMac(uint32_t address, net::MacAddress& mac) override {
    ULONG arp[2] = {};
    ULONG arpLength = 6;
    if (SendARP(address, 0, arp, &arpLength) != NO_ERROR || arpLength != 6) return false;
    std::memcpy(mac.data(), arp, 6);
    return true;
  }
};
}  // namespace

std::unique_ptr<ProbeChannel> openProbeChannel(const std::string& interfaceName, uint32_t interfaceAddress,
                                               std::string& why) {
  auto channel = std::make_unique<WindowsProbeChannel>();
  if (!channel->open(interfaceName, interfaceAddress, why)) return nullptr;
  return channel;
}

}  // namespace tarnlift::doctor
