// routersim: plays one or more routers on an Ethernet segment for tests,
// benchmarks and demonstrations. See docs/install.md for the options.
#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <queue>
#include <random>
#include <string>
#include <vector>

#include "net/udp_socket.h"
#include "tools/routersim/sim_router.h"

using namespace tarnlift;
using namespace tarnlift::routersim;

namespace {

volatile sig_atomic_t gStop = 0;
void onSignal(int) { gStop = 1; }

int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

const char* kUsage =
    "usage: routersim --interface IFACE [options]\n"
    "  --count N               routers to simulate (distinct MACs), default 1\n"
    "  --mac MAC               MAC of the first router, default 02:00:00:00:00:01\n"
    "  --label TEXT            announced label (a number is appended when N > 1)\n"
    "  --arch TEXT             announced architecture, default arm\n"
    "  --min-version V         announced minimum version, default 6.40\n"
    "  --version V             announced own version, default 6.41\n"
    "  --branding no|yes|protected   default no\n"
    "  --storage N             announced storage size, default 0\n"
    "  --answer TAG            answer to the offer: YACK (default), NACK or any tag\n"
    "  --format-ms N           formatting time, default 0\n"
    "  --announce-ms N         announcement interval, default 1000\n"
    "  --repeat-ms N           repeat the last datagram after N ms of silence, default 1000\n"
    "  --give-up-ms N          start over after N ms without an answer, default 10000\n"
    "  --term-wait-ms N        wait for TERM after WTRM, default 5000\n"
    "  --reannounce-ms N       after the first offer wait N ms, announce once, then answer\n"
    "  --stop-after-retr N     go silent after N requests\n"
    "  --output DIR            store files as DIR/<MAC>/<name> (default: check only)\n"
    "  --compare DIR           at the end, compare every received file that DIR also\n"
    "                          holds (by name) with it; a difference is inconsistent\n"
    "  --loss P --dup P        loss and duplication probability (0..1), both directions\n"
    "  --delay-ms N            delay every datagram by N ms, both directions\n"
    "  --seed S                seed of the impairments, default 1\n"
    "  --port N                protocol port, default 5000\n"
    "  --timeout-s N           give up after N seconds, default 300\n"
    "Prints one line per router: MAC, outcome, files, bytes, offers, offer lines, TERM, errors.\n"
    "Exit: 0 all installed as asked, 1 inconsistent data received, 2 usage, 3 unfinished routers.\n";

struct Pending {
  int64_t at;
  uint64_t order;
  bool outgoing;
  std::vector<uint8_t> data;
  bool operator>(const Pending& other) const { return at != other.at ? at > other.at : order > other.order; }
};

}  // namespace

int main(int argc, char** argv) {
  std::string interfaceName;
  int count = 1;
  net::MacAddress firstMac = {0x02, 0, 0, 0, 0, 0x01};
  SimRouterConfig base;
  double loss = 0, dup = 0;
  int64_t delayMs = 0;
  uint32_t seed = 1;
  uint16_t port = 5000;
  int64_t timeoutS = 300;
  bool labelGiven = false;
  std::string compareDir;

  for (int i = 1; i < argc; ++i) {
    std::string option = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) {
        std::cerr << "routersim: " << option << " needs a value\n" << kUsage;
        std::exit(2);
      }
      return argv[++i];
    };
    auto number = [&]() -> int64_t {
      std::string text = value();
      char* end = nullptr;
      long long n = std::strtoll(text.c_str(), &end, 10);
      if (text.empty() || *end != 0) {
        std::cerr << "routersim: " << option << " needs a number\n";
        std::exit(2);
      }
      return n;
    };
    if (option == "--interface")
      interfaceName = value();
    else if (option == "--count")
      count = static_cast<int>(number());
    else if (option == "--mac") {
      if (!net::parseMac(value(), firstMac)) {
        std::cerr << "routersim: bad MAC\n";
        return 2;
      }
    } else if (option == "--label") {
      base.label = value();
      labelGiven = true;
    } else if (option == "--arch")
      base.architecture = value();
    else if (option == "--min-version")
      base.minVersion = value();
    else if (option == "--version")
      base.version = value();
    else if (option == "--branding")
      base.branding = value();
    else if (option == "--storage")
      base.storage = static_cast<uint32_t>(number());
    else if (option == "--answer")
      base.answer = value();
    else if (option == "--format-ms")
      base.formatMs = number();
    else if (option == "--announce-ms")
      base.announceMs = number();
    else if (option == "--repeat-ms")
      base.repeatMs = number();
    else if (option == "--give-up-ms")
      base.giveUpMs = number();
    else if (option == "--term-wait-ms")
      base.termWaitMs = number();
    else if (option == "--reannounce-ms")
      base.reannounceMs = number();
    else if (option == "--stop-after-retr")
      base.stopAfterRetr = number();
    else if (option == "--output")
      base.outputDir = value();
    else if (option == "--compare")
      compareDir = value();
    else if (option == "--loss")
      loss = std::atof(value().c_str());
    else if (option == "--dup")
      dup = std::atof(value().c_str());
    else if (option == "--delay-ms")
      delayMs = number();
    else if (option == "--seed")
      seed = static_cast<uint32_t>(number());
    else if (option == "--port")
      port = static_cast<uint16_t>(number());
    else if (option == "--timeout-s")
      timeoutS = number();
    else if (option == "--help" || option == "-h") {
      std::cout << kUsage;
      return 0;
    } else {
      std::cerr << "routersim: unknown option " << option << "\n" << kUsage;
      return 2;
    }
  }
  if (interfaceName.empty() || count < 1 || loss < 0 || loss > 1 || dup < 0 || dup > 1) {
    std::cerr << kUsage;
    return 2;
  }

  net::UdpSocket socket;
  if (!socket.open() || !socket.setBroadcast() || !socket.setReuseAddress()) {
    std::perror("routersim: socket");
    return 2;
  }
  int s = static_cast<int>(socket.nativeHandle());
  // A router that has just booted has no IP configuration: tie the socket to
  // the device so that broadcasts need no route.
  if (::setsockopt(s, SOL_SOCKET, SO_BINDTODEVICE, interfaceName.c_str(),
                   static_cast<socklen_t>(interfaceName.size())) != 0) {
    std::perror("routersim: SO_BINDTODEVICE");
    return 2;
  }
  int bufferSize = 4 << 20;
  ::setsockopt(s, SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize);
  // The system hands us copies of our own broadcasts; with many routers they
  // would cost the simulator as much as the server's answers. Drop them
  // before they are queued.
  sock_filter ownCopies[] = {
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_LOOPBACK, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0),
      BPF_STMT(BPF_RET | BPF_K, 0xFFFFFFFFu),
  };
  sock_fprog program{static_cast<unsigned short>(sizeof ownCopies / sizeof ownCopies[0]), ownCopies};
  ::setsockopt(s, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
  if (!socket.bind(0, port)) {
    std::perror("routersim: bind");
    return 2;
  }
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> chance(0.0, 1.0);
  std::priority_queue<Pending, std::vector<Pending>, std::greater<Pending>> pending;
  uint64_t order = 0;

  // What the routers send goes out in batches: after each round of
  // datagrams and ticks, all at once (the requests of many routers are
  // datagrams of one size, which the system takes in one segmented send).
  std::vector<uint8_t> outgoingBytes;
  std::vector<size_t> outgoingSizes;
  auto transmit = [&](const uint8_t* data, size_t length) {
    outgoingBytes.insert(outgoingBytes.end(), data, data + length);
    outgoingSizes.push_back(length);
  };
  auto flush = [&]() {
    std::vector<net::UdpSocket::Outgoing> batch;
    size_t offset = 0;
    for (size_t size : outgoingSizes) {
      batch.push_back({outgoingBytes.data() + offset, size});
      offset += size;
    }
    for (size_t done = 0; done < batch.size(); done += net::UdpSocket::kBatchLimit) {
      size_t n = std::min(batch.size() - done, net::UdpSocket::kBatchLimit);
      socket.sendBatch(batch.data() + done, n, net::kBroadcastAddress, port);
    }
    outgoingBytes.clear();
    outgoingSizes.clear();
  };
  // Impairments apply to both directions: each datagram may be lost,
  // duplicated and delayed.
  auto impair = [&](bool outgoing, const uint8_t* data, size_t length, int64_t now) -> int {
    if (loss > 0 && chance(random) < loss) return 0;
    int copies = dup > 0 && chance(random) < dup ? 2 : 1;
    for (int c = 0; c < copies; ++c) {
      pending.push(Pending{now + delayMs, order++, outgoing, std::vector<uint8_t>(data, data + length)});
    }
    return copies;
  };

  std::vector<std::unique_ptr<SimRouter>> routers;
  std::map<net::MacAddress, SimRouter*> byMac;
  for (int i = 0; i < count; ++i) {
    SimRouterConfig config = base;
    config.mac = firstMac;
    uint32_t low = (static_cast<uint32_t>(firstMac[3]) << 16 | static_cast<uint32_t>(firstMac[4]) << 8 | firstMac[5]) +
                   static_cast<uint32_t>(i);
    config.mac[3] = static_cast<uint8_t>(low >> 16);
    config.mac[4] = static_cast<uint8_t>(low >> 8);
    config.mac[5] = static_cast<uint8_t>(low);
    if (count > 1 || !labelGiven) config.label = base.label + (count > 1 ? "-" + std::to_string(i + 1) : "");
    auto router = std::make_unique<SimRouter>(config, [&](const uint8_t* data, size_t length) {
      if (loss == 0 && dup == 0 && delayMs == 0) {
        transmit(data, length);
      } else {
        impair(true, data, length, nowMs());
      }
    });
    byMac[config.mac] = router.get();
    routers.push_back(std::move(router));
  }

  ::signal(SIGINT, onSignal);
  ::signal(SIGTERM, onSignal);
  std::cerr << "routersim: ready on " << interfaceName << " with " << count << " router(s)" << std::endl;

  int64_t deadline = nowMs() + timeoutS * 1000;
  // Received in batches; a run of the server's datagrams that came as one
  // segmented send stays in one piece (a router's own network stack would
  // see single frames, but cutting them up here would be work billed to the
  // sender on a veth pair, not work of the network).
  constexpr size_t kBatch = net::UdpSocket::kBatchLimit;
  constexpr size_t kMessageSize = 65536;
  socket.setNonBlocking();
  socket.receiveJoined();
  std::vector<uint8_t> buffers(kBatch * kMessageSize);
  net::UdpSocket::Incoming incoming[kBatch];
  bool timedOut = false;
  while (!gStop) {
    int64_t now = nowMs();
    bool allFinished = true;
    int64_t wake = now + 50;
    for (auto& router : routers) {
      router->tick(now);
      if (!router->finished()) {
        allFinished = false;
        wake = std::min(wake, router->nextWakeMs());
      }
    }
    if (allFinished && pending.empty()) break;
    if (now >= deadline) {
      timedOut = true;
      break;
    }
    while (!pending.empty() && pending.top().at <= now) {
      Pending next = pending.top();
      pending.pop();
      if (next.outgoing) {
        transmit(next.data.data(), next.data.size());
      } else if (next.data.size() >= install::kHeaderSize) {
        auto it = byMac.find(install::toMac(install::destinationMacOf(next.data.data())));
        if (it != byMac.end()) it->second->onDatagram(next.data.data(), next.data.size(), now);
      }
    }
    flush();
    if (!pending.empty()) wake = std::min(wake, pending.top().at);
    int waitMs = static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(wake - now, 50)));
    pollfd entry{s, POLLIN, 0};
    if (::poll(&entry, 1, waitMs) > 0) {
      // Drain everything that is waiting before the next round of ticks,
      // many datagrams per call, and answer each round at once.
      while (true) {
        for (size_t i = 0; i < kBatch; ++i) incoming[i] = {buffers.data() + i * kMessageSize, kMessageSize, -1, 0, 0, 0};
        int received = socket.receiveBatchWithin(incoming, kBatch, 1);
        if (received <= 0) break;
        int64_t at = nowMs();
        for (int i = 0; i < received; ++i) {
          const uint8_t* message = static_cast<const uint8_t*>(incoming[i].buffer);
          size_t total = static_cast<size_t>(incoming[i].length);
          size_t piece = incoming[i].segmentSize != 0 ? incoming[i].segmentSize : total;
          for (size_t offset = 0; offset < total; offset += piece) {
            const uint8_t* datagram = message + offset;
            size_t n = std::min(piece, total - offset);
            if (n < install::kHeaderSize) continue;
            if (byMac.count(install::toMac(install::sourceMacOf(datagram))) != 0) continue;  // our own broadcasts
            auto it = byMac.find(install::toMac(install::destinationMacOf(datagram)));
            if (it == byMac.end()) continue;
            if (loss == 0 && dup == 0 && delayMs == 0) {
              it->second->onDatagram(datagram, n, at);
            } else {
              impair(false, datagram, n, at);
            }
          }
        }
        flush();
      }
    }
  }

  bool inconsistent = false;
  bool unfinished = false;
  for (auto& router : routers) {
    std::cout << router->reportLine() << "\n";
    for (const std::string& e : router->errors())
      std::cerr << install::macText(router->config().mac) << ": " << e << "\n";
    for (const ReceivedFile& f : router->files()) {
      std::cerr << install::macText(router->config().mac) << ": received " << f.name << " " << f.size << " bytes\n";
    }
    if (!router->errors().empty()) inconsistent = true;
    if (!router->finished()) unfinished = true;
  }
  std::cout.flush();
  socket.close();
  if (!compareDir.empty()) {
    // What every router received against the files it should have: the
    // checksum of each reference file, once.
    std::map<std::string, uint64_t> references;
    size_t identical = 0;
    size_t different = 0;
    for (auto& router : routers) {
      for (const ReceivedFile& f : router->files()) {
        auto it = references.find(f.name);
        if (it == references.end()) {
          std::FILE* in = std::fopen((compareDir + "/" + f.name).c_str(), "rb");
          if (in == nullptr) continue;
          uint64_t hash = kFnvStart;
          std::vector<uint8_t> block(1 << 16);
          for (size_t n; (n = std::fread(block.data(), 1, block.size(), in)) > 0;) hash = fnv1a(hash, block.data(), n);
          std::fclose(in);
          it = references.emplace(f.name, hash).first;
        }
        if (it->second == f.checksum) {
          ++identical;
        } else {
          ++different;
          std::cerr << install::macText(router->config().mac) << ": " << f.name << " differs from " << compareDir
                    << "\n";
        }
      }
    }
    std::cerr << "routersim: " << identical << " files identical to " << compareDir << ", " << different
              << " different" << std::endl;
    if (different != 0) inconsistent = true;
  }
  if (timedOut) std::cerr << "routersim: timed out\n";
  if (inconsistent) return 1;
  if (unfinished) return 3;
  return 0;
}
