#include "install/connection.h"

#include <cstdio>

#include "app/log.h"

namespace tarnlift::install {

void InstallConnection::reset() {
  seq = 0;
  ack = 0;
  lastAckSent = 0;
  localMac.fill(0);
  peerMac.fill(0);
}

void InstallConnection::buildHeader(uint8_t* datagram, uint16_t payloadLength) {
  writeLe16(datagram + kPayloadLengthOffset, payloadLength);
  writeLe16(datagram + kAcknowledgementOffset, static_cast<uint16_t>(ack & 0xFFFF));
  lastAckSent = ack;
  ++seq;
  writeLe16(datagram + kSequenceOffset, static_cast<uint16_t>(seq & 0xFFFF));
  std::memcpy(datagram + kSourceMacOffset, localMac.data(), 6);
  std::memcpy(datagram + kDestinationMacOffset, peerMac.data(), 6);
}

bool InstallConnection::validate(const uint8_t* datagram, size_t length) const {
  if (length < kHeaderSize) return false;
  uint16_t payload = payloadLengthOf(datagram);
  if (length - kHeaderSize != payload) {
    app::logLine() << "* size mismatch: size: " << length << ", payload: " << payload;
    return false;
  }
  if (std::memcmp(sourceMacOf(datagram), localMac.data(), 6) == 0) return false;  // our own, looped back
  if (isZeroMac(destinationMacOf(datagram))) {
    // An announcement is welcome only until the session has its router.
    if (!isZeroMac(peerMac)) return false;
  } else if (std::memcmp(destinationMacOf(datagram), localMac.data(), 6) != 0) {
    return false;
  }
  if (isZeroMac(peerMac)) return true;
  if (std::memcmp(sourceMacOf(datagram), peerMac.data(), 6) != 0) {
    app::logLine() << "* invalid source";
    return false;
  }
  return true;
}

int InstallConnection::accept(const uint8_t* datagram, size_t length) {
  if (!validate(datagram, length)) return -1;
  uint32_t theirAck = acknowledgementOf(datagram);
  uint32_t theirSeq = sequenceOf(datagram);
  if (theirAck > seq) {
    app::logLine() << "* recv ack bigger than sent seq";
    app::logLine() << "Src: " << macText(sourceMacOf(datagram)) << "\tDst: " << macText(destinationMacOf(datagram));
    app::logLine() << "Payload: " << payloadLengthOf(datagram);
    app::logLine() << "SeqNum: " << theirSeq << "\tAckNum: " << theirAck;
    app::logLine() << "conn seqNum: " << seq << ", ackNum: " << ack;
    return -1;
  }
  if (theirSeq == ack + 1) {
    ack = theirSeq;
    return 1;
  }
  return 0;
}

}  // namespace tarnlift::install
