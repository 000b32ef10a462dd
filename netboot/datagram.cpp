#include "netboot/datagram.h"

#include <string>
#include <vector>

#include "app/failure.h"
#include "netboot/interfaces.h"
#include "net/udp_socket.h"

namespace tarnlift::netboot {
namespace {

using net::UdpSocket;

class SystemSocket : public DatagramSocket {
 public:
  UdpSocket socket;
  int sendTo(const void* data, size_t size, uint32_t address, uint16_t port) override {
    return socket.sendTo(data, size, address, port);
  }
  int receiveFrom(void* buffer, size_t size, uint32_t* address, uint16_t* port) override {
    return socket.receiveFrom(buffer, size, address, port);
  }
  bool wouldBlock() const override { return UdpSocket::wouldBlock(); }
};

[[noreturn]] void socketFatal(const char* message) {
  std::string text = message;
  app::reportSocketFailure(text, true);
  app::fatalFailure(message);  // not reached
}

class SystemNetwork : public DatagramNetwork {
 public:
  std::unique_ptr<DatagramSocket> openBootp(uint32_t serverAddress) override {
    auto result = std::make_unique<SystemSocket>();
    UdpSocket& s = result->socket;
    if (!s.open()) socketFatal("failed to create bootp socket");
    if (!s.setReuseAddress()) socketFatal("can't set SO_REUSEADDR");
    if (!s.setBroadcast()) socketFatal("can't set SO_BROADCAST");
    s.ignoreConnectionResets();
    ServedInterface served = servedInterface();
    std::string device = served.address == serverAddress ? served.name : std::string();
    if (!s.bindOnInterface(serverAddress, 67, device)) socketFatal("bind bootp failed");
    return result;
  }

  std::unique_ptr<DatagramSocket> openWatch(uint32_t serverAddress, std::string& why) override {
    auto result = std::make_unique<SystemSocket>();
    UdpSocket& s = result->socket;
    if (!s.open()) {
      why = "cannot create a socket (error " + std::to_string(UdpSocket::lastError()) + ")";
      return nullptr;
    }
    // Reuse, so that a DHCP client that asks for it too can still have the
    // port; a client that holds it alone makes the bind fail.
    s.setReuseAddress();
    s.ignoreConnectionResets();
    ServedInterface served = servedInterface();
    std::string device = served.address == serverAddress ? served.name : std::string();
    if (!s.bindOnInterface(serverAddress, 68, device)) {
      why = "cannot bind UDP port 68 (error " + std::to_string(UdpSocket::lastError()) + ")";
      return nullptr;
    }
    if (!s.setNonBlocking()) {
      why = "cannot make the port 68 socket non-blocking";
      return nullptr;
    }
    return result;
  }

  std::unique_ptr<DatagramSocket> openTftp(uint32_t serverAddress) override {
    auto result = std::make_unique<SystemSocket>();
    UdpSocket& s = result->socket;
    if (!s.open()) socketFatal("failed to create TFTP socket");
    if (!s.bind(serverAddress, 69)) socketFatal("bind tftp general failed");
    if (!s.setNonBlocking()) socketFatal("bind tftp general failed");
    return result;
  }

  std::unique_ptr<DatagramSocket> openTransfer(uint32_t serverAddress, uint16_t port) override {
    auto result = std::make_unique<SystemSocket>();
    UdpSocket& s = result->socket;
    if (!s.open()) socketFatal("failed to create TFTP socket");
    s.ignoreConnectionResets();
    if (!s.bind(serverAddress, port)) socketFatal("bind tftp failed");
    return result;
  }

  int waitReadable(DatagramSocket* const* sockets, size_t count, uint32_t milliseconds, bool* readable) override {
    std::vector<UdpSocket*> native(count);
    for (size_t i = 0; i < count; ++i) native[i] = &static_cast<SystemSocket*>(sockets[i])->socket;
    return UdpSocket::waitReadable(native.data(), count, milliseconds, readable);
  }
};

}  // namespace

DatagramNetwork& systemDatagramNetwork() {
  static SystemNetwork network;
  return network;
}

}  // namespace tarnlift::netboot
