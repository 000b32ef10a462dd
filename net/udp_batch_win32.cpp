#include "net/udp_socket.h"

namespace tarnlift::net {

// Winsock has no call for several datagrams at once: one call each.
bool UdpSocket::batchesAvailable() { return false; }

bool UdpSocket::receiveJoined() { return false; }

size_t UdpSocket::sendBatch(const Outgoing* datagrams, size_t count, uint32_t address, uint16_t port) {
  size_t taken = 0;
  for (size_t i = 0; i < count; ++i) {
    if (sendTo(datagrams[i].data, datagrams[i].size, address, port) >= 0) ++taken;
  }
  return taken;
}

int UdpSocket::receiveBatchWithin(Incoming* datagrams, size_t count, uint64_t timeoutUs) {
  if (count == 0) return 0;
  int length =
      receiveWithin(datagrams[0].buffer, datagrams[0].size, timeoutUs, &datagrams[0].address, &datagrams[0].port);
  if (length < 0) return length;
  datagrams[0].length = length;
  datagrams[0].segmentSize = 0;
  return 1;
}

}  // namespace tarnlift::net
