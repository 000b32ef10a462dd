// Feeds arbitrary datagrams to a connection's validate/accept, bound and
// unbound, and to a session in each protocol state. Nothing may crash, read
// out of bounds or leave the sequencing rules.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/install/fuzz_support.h"
#include "install/connection.h"
#include "install/session.h"

using namespace tarnlift;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzing::silenceLog();
  const net::MacAddress local = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
  const net::MacAddress peer = {0x4C, 0x5E, 0x0C, 0x01, 0x02, 0x03};
  size_t length = size > install::kDatagramBufferSize ? install::kDatagramBufferSize : size;
  // Copy into a buffer of exactly the datagram's size so that a read past
  // its end is caught.
  std::vector<uint8_t> datagram(data, data + length);

  install::InstallConnection unbound;
  unbound.localMac = local;
  int r = unbound.accept(datagram.data(), datagram.size());
  if (r < -1 || r > 1) __builtin_trap();

  install::InstallConnection bound;
  bound.localMac = local;
  bound.peerMac = peer;
  uint8_t scratch[install::kDatagramBufferSize] = {};
  for (int i = 0; i < 3; ++i) bound.buildHeader(scratch, 0);
  uint32_t ackBefore = bound.ack;
  r = bound.accept(datagram.data(), datagram.size());
  if (r == 1 && bound.ack != ackBefore + 1) __builtin_trap();
  if (r != 1 && bound.ack != ackBefore) __builtin_trap();

  // The same bytes as a stream of datagrams for one session: each one is
  // 2 bytes of length and that many bytes, sent with the router's MAC.
  fuzzing::SinkTransport transport;
  app::ManualClock clock;
  install::RouterRecord request;
  request.mac = peer;
  request.defaultConfig = true;
  install::Installator session(request, true, transport, clock,
                               [](const install::RouterRecord&, std::string&) { return std::string(); });
  size_t position = 0;
  while (position + 2 <= size) {
    size_t n = static_cast<size_t>(data[position] | (data[position + 1] << 8)) % 512;
    position += 2;
    if (n > size - position) n = size - position;
    std::vector<uint8_t> one(data + position, data + position + n);
    position += n;
    if (one.size() >= 12) {
      std::memcpy(one.data(), peer.data(), 6);
      std::memcpy(one.data() + 6, local.data(), 6);
    }
    session.onDatagram(one.data(), one.size());
    clock.advanceMillis(1);
    if (one.size() % 7 == 0) session.onTimeout();
  }
  return 0;
}
