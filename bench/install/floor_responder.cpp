// The floor for the throughput comparison: the least a server can do. It
// answers each router with the protocol's replies straight from memory (one
// file of the given size made of one 1452-byte block), with no sessions,
// locks, files or time-outs. The router simulator against this responder
// shows what the network and the simulator cost; the difference to the real
// server is the server's own cost. It takes one datagram per call and sends
// one per call, as a plain server does.
//
//   install_floor_responder IFACE SIZE_BYTES [PORT [PEERS]]
//
// With PEERS it ends once that many routers were told "TERM".
#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "install/connection.h"

using namespace tarnlift;

namespace {
struct Peer {
  install::InstallConnection connection;
  std::vector<uint8_t> last;
  int64_t sent = -1;  // file bytes sent; -1 before the file header
  bool listDone = false;
};
}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: install_floor_responder IFACE SIZE_BYTES [PORT [PEERS]]\n");
    return 2;
  }
  std::string device = argv[1];
  int64_t size = std::atoll(argv[2]);
  uint16_t port = static_cast<uint16_t>(argc > 3 ? std::atoi(argv[3]) : 5000);
  long peersToServe = argc > 4 ? std::atol(argv[4]) : 0;
  long peersServed = 0;
  int s = ::socket(AF_INET, SOCK_DGRAM, 0);
  int on = 1;
  ::setsockopt(s, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
  ::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  ::setsockopt(s, SOL_SOCKET, SO_BINDTODEVICE, device.c_str(), static_cast<socklen_t>(device.size()));
  // Our own broadcasts come back to us: drop them before they are queued,
  // as the server does, so that they cost neither side a wake-up.
  sock_filter ownCopies[] = {
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_LOOPBACK, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0),
      BPF_STMT(BPF_RET | BPF_K, 0xFFFFFFFFu),
  };
  sock_fprog program{static_cast<unsigned short>(sizeof ownCopies / sizeof ownCopies[0]), ownCopies};
  ::setsockopt(s, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  if (::bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    std::perror("bind");
    return 2;
  }
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_BROADCAST);
  const net::MacAddress self = {0x02, 0xF1, 0x00, 0x00, 0x00, 0x01};
  std::vector<uint8_t> block(install::kChunkSize, 0xA5);
  std::map<net::MacAddress, Peer> peers;
  uint8_t in[install::kDatagramBufferSize];
  std::fprintf(stderr, "floor: ready\n");

  auto send = [&](Peer& peer, const void* payload, size_t length) {
    peer.last.assign(install::kHeaderSize + length, 0);
    std::memcpy(peer.last.data() + install::kHeaderSize, payload, length);
    peer.connection.buildHeader(peer.last.data(), static_cast<uint16_t>(length));
    ::sendto(s, peer.last.data(), peer.last.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
  };

  while (true) {
    ssize_t n = ::recv(s, in, sizeof in, 0);
    if (n < static_cast<ssize_t>(install::kHeaderSize) ||
        install::payloadLengthOf(in) != n - static_cast<ssize_t>(install::kHeaderSize))
      continue;
    net::MacAddress source = install::toMac(install::sourceMacOf(in));
    if (source == self) continue;
    const uint8_t* payload = in + install::kHeaderSize;
    size_t length = static_cast<size_t>(n) - install::kHeaderSize;
    if (install::isZeroMac(install::destinationMacOf(in))) {
      if (!install::payloadHasTag(payload, length, "DSCV") || peers.count(source) != 0) continue;
      Peer& peer = peers[source];
      peer.connection.localMac = self;
      peer.connection.peerMac = source;
      send(peer, "OFFR\n", 5);
      continue;
    }
    auto it = peers.find(source);
    if (it == peers.end()) continue;
    Peer& peer = it->second;
    int result = peer.connection.accept(in, static_cast<size_t>(n));
    if (result == 0 && install::acknowledgementOf(in) < peer.connection.seq) {
      ::sendto(s, peer.last.data(), peer.last.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    }
    if (result != 1) continue;
    if (install::payloadHasTag(payload, length, "YACK") || install::payloadHasTag(payload, length, "STRT")) {
      send(peer, "", 0);
    } else if (install::payloadHasTag(payload, length, "RETR")) {
      if (peer.listDone) continue;
      if (peer.sent < 0) {
        std::string header = "FILE\nfloor.npk\n" + std::to_string(size) + "\n";
        send(peer, header.data(), header.size());
        peer.sent = 0;
      } else if (peer.sent < size) {
        size_t chunk =
            static_cast<size_t>(std::min<int64_t>(size - peer.sent, static_cast<int64_t>(install::kChunkSize)));
        send(peer, block.data(), chunk);
        peer.sent += static_cast<int64_t>(chunk);
      } else if (peer.sent == size) {
        send(peer, "", 0);
        peer.sent = size + 1;
      } else {
        send(peer, "FILE\n", 5);
        peer.listDone = true;
      }
    } else if (install::payloadHasTag(payload, length, "WTRM")) {
      send(peer, "TERM\nInstallation successful\n", 29);
      if (peersToServe > 0 && ++peersServed == peersToServe) break;
    }
  }
  return 0;
}
