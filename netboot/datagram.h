// The sockets of the boot services, behind an interface so that the engines
// run against an in-memory network in tests. The system network opens real
// UDP sockets (net/udp_socket.h) on the served interface.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace tarnlift::netboot {

class DatagramSocket {
 public:
  virtual ~DatagramSocket() = default;
  // Bytes sent, or -1 on failure.
  virtual int sendTo(const void* data, size_t size, uint32_t address, uint16_t port) = 0;
  // Bytes received (cut to size), or -1: an error, or nothing waiting on a
  // non-blocking socket (wouldBlock() tells which).
  virtual int receiveFrom(void* buffer, size_t size, uint32_t* address, uint16_t* port) = 0;
  virtual bool wouldBlock() const = 0;
};

class DatagramNetwork {
 public:
  virtual ~DatagramNetwork() = default;
  // Each open creates and binds the socket of one role; any failure is fatal
  // with the role's own message, so the result is never null.
  // BOOTP: address reuse and broadcast on, bound to port 67 on the served
  // interface (hearing its broadcasts).
  virtual std::unique_ptr<DatagramSocket> openBootp(uint32_t serverAddress) = 0;
  // TFTP well-known port 69, non-blocking.
  virtual std::unique_ptr<DatagramSocket> openTftp(uint32_t serverAddress) = 0;
  // One transfer's socket, bound to (serverAddress, port).
  virtual std::unique_ptr<DatagramSocket> openTransfer(uint32_t serverAddress, uint16_t port) = 0;
  // The watch for other boot servers: address reuse on, non-blocking, bound
  // to port 68 on the served interface (hearing the replies broadcast to
  // clients). Not fatal: null with why filled when the port cannot be had
  // (a DHCP client on this machine holds it); serving goes on without it.
  virtual std::unique_ptr<DatagramSocket> openWatch(uint32_t serverAddress, std::string& why) {
    (void)serverAddress;
    why = "not available on this network";
    return nullptr;
  }
  // Waits up to milliseconds for one of the sockets to become readable.
  // -1 on error, 0 on time-out, else how many; readable[i] tells which.
  virtual int waitReadable(DatagramSocket* const* sockets, size_t count, uint32_t milliseconds, bool* readable) = 0;
};

// Real UDP sockets.
DatagramNetwork& systemDatagramNetwork();

}  // namespace tarnlift::netboot
