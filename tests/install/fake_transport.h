// An in-memory transport: what the code under test sends is recorded, what
// the test queues is received. Never touches a socket.
#pragma once

#include <atomic>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "install/connection.h"
#include "install/transport.h"

namespace tarnlift::testing {

inline const net::MacAddress kServerMac = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
inline const net::MacAddress kRouterMac = {0x4C, 0x5E, 0x0C, 0x01, 0x02, 0x03};

class FakeTransport : public install::DatagramTransport {
 public:
  std::vector<std::vector<uint8_t>> sent;
  std::deque<std::vector<uint8_t>> incoming;
  std::vector<uint64_t> waits;
  net::MacAddress mac = kServerMac;
  std::atomic<int> waitCalls{0};

  int send(const uint8_t* buffer, size_t length) override {
    sent.emplace_back(buffer, buffer + length);
    return static_cast<int>(length);
  }
  int waitReceive(uint8_t* buffer, uint64_t timeoutUs) override {
    waits.push_back(timeoutUs);
    ++waitCalls;
    if (incoming.empty()) return -1;
    std::vector<uint8_t> next = incoming.front();
    incoming.pop_front();
    std::memcpy(buffer, next.data(), next.size());
    return static_cast<int>(next.size());
  }
  net::MacAddress localMac() const override { return mac; }

  std::string lastPayload() const { return payloadOf(sent.back()); }
  static std::string payloadOf(const std::vector<uint8_t>& datagram) {
    return std::string(datagram.begin() + install::kHeaderSize, datagram.end());
  }
};

// Builds a datagram with explicit header fields.
inline std::vector<uint8_t> makeDatagram(const net::MacAddress& source, const net::MacAddress& destination,
                                         uint16_t seq, uint16_t ack, const std::string& payload) {
  std::vector<uint8_t> d(install::kHeaderSize + payload.size(), 0);
  std::memcpy(d.data(), source.data(), 6);
  std::memcpy(d.data() + 6, destination.data(), 6);
  install::writeLe16(d.data() + install::kPayloadLengthOffset, static_cast<uint16_t>(payload.size()));
  install::writeLe16(d.data() + install::kSequenceOffset, seq);
  install::writeLe16(d.data() + install::kAcknowledgementOffset, ack);
  std::memcpy(d.data() + install::kHeaderSize, payload.data(), payload.size());
  return d;
}

// The router's side of a conversation, numbering as a router does.
class ScriptedRouter {
 public:
  explicit ScriptedRouter(net::MacAddress mac = kRouterMac) : mac_(mac) {}
  std::vector<uint8_t> next(const std::string& payload) {
    ++seq_;
    return makeDatagram(mac_, kServerMac, static_cast<uint16_t>(seq_), static_cast<uint16_t>(ack_), payload);
  }
  // The same sequence number again, as a router repeating itself.
  std::vector<uint8_t> repeat(const std::string& payload) const {
    return makeDatagram(mac_, kServerMac, static_cast<uint16_t>(seq_), static_cast<uint16_t>(ack_), payload);
  }
  void heard(const std::vector<uint8_t>& datagram) { ack_ = install::sequenceOf(datagram.data()); }
  std::vector<uint8_t> announce(const std::string& payload) const {
    return makeDatagram(mac_, net::MacAddress{}, 0, 0, payload);
  }

 private:
  net::MacAddress mac_;
  uint32_t seq_ = 0;
  uint32_t ack_ = 0;
};

}  // namespace tarnlift::testing
