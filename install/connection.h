// Per-peer sequence and acknowledgement bookkeeping of one installation
// session, and the validation of incoming datagrams.
#pragma once

#include <cstddef>
#include <cstdint>

#include "install/install_datagram.h"

namespace tarnlift::install {

class InstallConnection {
 public:
  uint32_t seq = 0;          // last sequence number sent to the peer
  uint32_t ack = 0;          // last sequence number received in order
  uint32_t lastAckSent = 0;  // ack as it stood when the last header was built
  MacAddress localMac{};
  MacAddress peerMac{};  // all zero: not bound to a peer yet

  void reset();
  // Fills the 20-byte header for a payload of payloadLength bytes; every
  // datagram, a pure acknowledgement too, takes the next sequence number.
  // The reserved bytes 12..13 are left as they are.
  void buildHeader(uint8_t* datagram, uint16_t payloadLength);
  bool validate(const uint8_t* datagram, size_t length) const;
  // -1 invalid, 0 valid but not next in order (a repeat), 1 next in order.
  int accept(const uint8_t* datagram, size_t length);
};

}  // namespace tarnlift::install
