// Windows: the probe goes out of UDP port 68 on the interface's address;
// the answering server's hardware address comes from an ARP request.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <iphlpapi.h>

#include <cstring>

#include "doctor/probe.h"

namespace tarnlift::doctor {
namespace {

class WindowsProbeChannel : public ProbeChannel {
 public:
  ~WindowsProbeChannel() override {
    if (socket_ != INVALID_SOCKET) closesocket(socket_);
  }

  bool open(uint32_t interfaceAddress, std::string& why) {
    socket_ = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (socket_ == INVALID_SOCKET) {
      why = "cannot open a socket (error " + std::to_string(WSAGetLastError()) + ")";
      return false;
    }
    BOOL on = TRUE;
    setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&on), sizeof on);
    setsockopt(socket_, SOL_SOCKET, SO_BROADCAST, reinterpret_cast<const char*>(&on), sizeof on);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(68);
    local.sin_addr.s_addr = interfaceAddress;
    if (bind(socket_, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
      why = "cannot bind UDP port 68 (error " + std::to_string(WSAGetLastError()) + ")";
      return false;
    }
    return true;
  }

  bool send(const std::vector<uint8_t>& discover, std::string& why) override {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(67);
    to.sin_addr.s_addr = INADDR_BROADCAST;
    if (sendto(socket_, reinterpret_cast<const char*>(discover.data()), static_cast<int>(discover.size()), 0,
               reinterpret_cast<sockaddr*>(&to), sizeof to) == SOCKET_ERROR) {
      why = "cannot send the probe (error " + std::to_string(WSAGetLastError()) + ")";
      return false;
    }
    return true;
  }

  bool receive(int waitMillis, ProbeDatagram& datagram) override {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket_, &readable);
    timeval wait{static_cast<long>(waitMillis / 1000), static_cast<long>((waitMillis % 1000) * 1000)};
    if (select(0, &readable, nullptr, nullptr, &wait) <= 0) return false;
    uint8_t buffer[1500];
    sockaddr_in from{};
    int fromLength = sizeof from;
    int n = recvfrom(socket_, reinterpret_cast<char*>(buffer), sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from),
                     &fromLength);
    if (n <= 0) return false;
    datagram.bytes.assign(buffer, buffer + n);
    datagram.source = from.sin_addr.s_addr;
    datagram.macKnown = false;
    return true;
  }

  bool lookUpMac(uint32_t address, net::MacAddress& mac) override {
    ULONG arp[2] = {};
    ULONG arpLength = 6;
    if (SendARP(address, 0, arp, &arpLength) != NO_ERROR || arpLength != 6) return false;
    std::memcpy(mac.data(), arp, 6);
    return true;
  }

 private:
  SOCKET socket_ = INVALID_SOCKET;
};
}  // namespace

std::unique_ptr<ProbeChannel> openProbeChannel(const std::string&, uint32_t interfaceAddress, std::string& why) {
  auto channel = std::make_unique<WindowsProbeChannel>();
  if (!channel->open(interfaceAddress, why)) return nullptr;
  return channel;
}

}  // namespace tarnlift::doctor
