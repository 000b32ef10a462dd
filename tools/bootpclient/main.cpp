// bootpclient: sends the BOOTP request of a booting router on one device and
// checks the reply byte by byte against what the request asks for.
//
// usage: bootpclient --interface IF --vendor-class TEXT [--arch N] [--mac MAC]
//          [--timeout SECONDS] [--client A.B.C.D --server A.B.C.D
//          [--pxe --netmask A.B.C.D --image-length N]]
// Prints "reply LENGTH us=MICROSECONDS" and exits 0 when the reply matches,
// 1 on a mismatch (each one printed), 2 when no reply came in time.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "netboot/bootp.h"

namespace {

using tarnlift::netboot::MacAddress;

struct Options {
  std::string device;
  std::string vendorClass;
  int architecture = -1;
  MacAddress mac{0x02, 0x00, 0x5E, 0x10, 0x20, 0x30};
  int timeoutSeconds = 10;
  std::string client, server, netmask;
  bool pxe = false;
  long imageLength = -1;
};

bool parseMac(const std::string& text, MacAddress& mac) {
  unsigned b[6];
  if (std::sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]) != 6) return false;
  for (int i = 0; i < 6; ++i) mac[i] = static_cast<uint8_t>(b[i]);
  return true;
}

int usage() {
  std::fprintf(stderr,
               "usage: bootpclient --interface IF --vendor-class TEXT [--arch N] [--mac MAC] [--timeout S]\n"
               "         [--client A --server A [--pxe --netmask M --image-length N]]\n");
  return 64;
}

// The reply the request should get, written from the protocol's rules.
std::vector<uint8_t> expectedReply(const std::vector<uint8_t>& request, const Options& o) {
  std::vector<uint8_t> reply(request);
  reply[0] = 2;
  in_addr_t client = inet_addr(o.client.c_str());
  in_addr_t server = inet_addr(o.server.c_str());
  std::memcpy(reply.data() + 16, &client, 4);
  std::memcpy(reply.data() + 20, &server, 4);
  std::vector<uint8_t> options;
  if (o.pxe) {
    std::memset(reply.data() + 108, 0, 128);
    std::memcpy(reply.data() + 108, "/image", 6);
    // The boot file size in 512-byte blocks, one more than whole blocks; an
    // image whose count does not fit 16 bits gets no option 13 at all.
    unsigned long blocks = static_cast<unsigned long>(o.imageLength / 512 + 1);
    if (blocks <= 0xFFFF) options = {13, 2, uint8_t(blocks >> 8), uint8_t(blocks)};
    in_addr_t mask = inet_addr(o.netmask.c_str());
    const uint8_t* m = reinterpret_cast<const uint8_t*>(&mask);
    options.insert(options.end(), {1, 4, m[0], m[1], m[2], m[3]});
  }
  options.push_back(255);
  reply.resize(240);
  reply.insert(reply.end(), options.begin(), options.end());
  return reply;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto next = [&]() -> std::string { return i + 1 < argc ? argv[++i] : ""; };
    if (a == "--interface")
      o.device = next();
    else if (a == "--vendor-class")
      o.vendorClass = next();
    else if (a == "--arch")
      o.architecture = std::atoi(next().c_str());
    else if (a == "--mac") {
      if (!parseMac(next(), o.mac)) return usage();
    } else if (a == "--timeout")
      o.timeoutSeconds = std::atoi(next().c_str());
    else if (a == "--client")
      o.client = next();
    else if (a == "--server")
      o.server = next();
    else if (a == "--netmask")
      o.netmask = next();
    else if (a == "--pxe")
      o.pxe = true;
    else if (a == "--image-length")
      o.imageLength = std::atol(next().c_str());
    else
      return usage();
  }
  if (o.device.empty()) return usage();
  if (o.pxe && (o.netmask.empty() || o.imageLength < 0)) return usage();

  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
  if (setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, o.device.c_str(), static_cast<socklen_t>(o.device.size())) != 0) {
    std::perror("SO_BINDTODEVICE");
    return 1;
  }
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(68);
  if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
    std::perror("bind 68");
    return 1;
  }
  uint32_t xid = static_cast<uint32_t>(getpid()) * 2654435761u;
  std::vector<uint8_t> request = tarnlift::netboot::makeBootpRequest(o.mac, o.vendorClass, o.architecture, xid);
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(67);
  server.sin_addr.s_addr = INADDR_BROADCAST;

  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(o.timeoutSeconds);
  std::vector<uint8_t> reply;
  long micros = 0;
  while (reply.empty() && std::chrono::steady_clock::now() < deadline) {
    auto sentAt = std::chrono::steady_clock::now();
    if (sendto(fd, request.data(), request.size(), 0, reinterpret_cast<sockaddr*>(&server), sizeof server) < 0) {
      std::perror("sendto");
      return 1;
    }
    // One second per try, as a boot ROM repeats its request.
    auto tryEnd = sentAt + std::chrono::seconds(1);
    while (std::chrono::steady_clock::now() < tryEnd) {
      int left = static_cast<int>(
          std::chrono::duration_cast<std::chrono::milliseconds>(tryEnd - std::chrono::steady_clock::now()).count());
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, left < 1 ? 1 : left) <= 0) continue;
      uint8_t buffer[2048];
      ssize_t n = recv(fd, buffer, sizeof buffer, 0);
      auto at = std::chrono::steady_clock::now();
      if (n < 240 || buffer[0] != 2 || std::memcmp(buffer + 4, request.data() + 4, 4) != 0 ||
          std::memcmp(buffer + 28, o.mac.data(), 6) != 0) {
        continue;  // someone else's
      }
      reply.assign(buffer, buffer + n);
      micros = static_cast<long>(std::chrono::duration_cast<std::chrono::microseconds>(at - sentAt).count());
      break;
    }
  }
  close(fd);
  if (reply.empty()) {
    std::printf("no reply\n");
    return 2;
  }
  std::printf("reply %zu us=%ld\n", reply.size(), micros);
  if (o.client.empty()) return 0;
  std::vector<uint8_t> want = expectedReply(request, o);
  int mismatches = 0;
  if (reply.size() != want.size()) {
    std::printf("length %zu, want %zu\n", reply.size(), want.size());
    ++mismatches;
  }
  for (size_t i = 0; i < reply.size() && i < want.size(); ++i) {
    if (reply[i] != want[i]) {
      if (++mismatches <= 20) std::printf("offset %zu: %u, want %u\n", i, reply[i], want[i]);
    }
  }
  return mismatches == 0 ? 0 : 1;
}
