#include "doctor/probe.h"

#include <algorithm>
#include <cstring>
#include <random>

#include "app/failure.h"

namespace tarnlift::doctor {
namespace {
constexpr size_t kFixedPart = 236;
constexpr uint8_t kCookie[4] = {99, 130, 83, 99};

uint32_t word(const uint8_t* p) {
  uint32_t value;
  std::memcpy(&value, p, 4);
  return value;  // as stored: network order
}
}  // namespace

std::vector<uint8_t> makeDiscover(const net::MacAddress& mac, uint32_t xid) {
  std::vector<uint8_t> m(300, 0);
  m[0] = 1;  // BOOTREQUEST
  m[1] = 1;  // Ethernet
  m[2] = 6;
  m[4] = static_cast<uint8_t>(xid >> 24);
  m[5] = static_cast<uint8_t>(xid >> 16);
  m[6] = static_cast<uint8_t>(xid >> 8);
  m[7] = static_cast<uint8_t>(xid);
  m[10] = 0x80;  // broadcast the answer: we have no address to take it yet
  std::memcpy(&m[28], mac.data(), 6);
  size_t at = kFixedPart;
  std::memcpy(&m[at], kCookie, 4);
  at += 4;
  const uint8_t options[] = {53, 1, 1,              // DHCPDISCOVER
                             55, 4, 1, 3, 66, 67,   // mask, router, TFTP server, boot file
                             255};
  std::memcpy(&m[at], options, sizeof options);
  return m;
}

bool parseProbeAnswer(const uint8_t* data, size_t length, uint32_t xid, const net::MacAddress& mac,
                      uint32_t sourceAddress, ProbeAnswer& answer) {
  if (data == nullptr || length < kFixedPart) return false;
  if (data[0] != 2) return false;
  uint32_t got = (uint32_t{data[4]} << 24) | (uint32_t{data[5]} << 16) | (uint32_t{data[6]} << 8) | data[7];
  if (got != xid) return false;
  if (std::memcmp(&data[28], mac.data(), 6) != 0) return false;
  answer = ProbeAnswer{};
  answer.offered = word(&data[16]);
  answer.nextServer = word(&data[20]);
  answer.server = sourceAddress;
  const char* file = reinterpret_cast<const char*>(&data[108]);
  answer.bootFile.assign(file, strnlen(file, 128));
  if (length >= kFixedPart + 4 && std::memcmp(&data[kFixedPart], kCookie, 4) == 0) {
    size_t at = kFixedPart + 4;
    while (at < length) {
      uint8_t code = data[at++];
      if (code == 0) continue;
      if (code == 255 || at >= length) break;
      size_t size = data[at++];
      if (at + size > length) break;
      if (code == 54 && size == 4) answer.server = word(&data[at]);
      if (code == 67 && answer.bootFile.empty()) {
        answer.bootFile.assign(reinterpret_cast<const char*>(&data[at]), strnlen(reinterpret_cast<const char*>(&data[at]), size));
      }
      at += size;
    }
  }
  return true;
}

std::vector<int> discoverTimes(int totalMillis) {
  constexpr int kFirstRetransmitMillis = 4000;
  constexpr int kLongestGapMillis = 64000;
  std::vector<int> times{0};
  int gap = kFirstRetransmitMillis;
  // Each DHCPDISCOVER gets at least as long as the first retransmission
  // gives the first one to be answered.
  for (int at = gap; at + kFirstRetransmitMillis <= totalMillis; at += gap) {
    times.push_back(at);
    gap = std::min(gap * 2, kLongestGapMillis);
  }
  return times;
}

std::string probeProgressLine(const ProbeProgress& p) {
  return "probe: listening " + std::to_string(p.elapsedMillis / 1000) + " of " + std::to_string(p.totalMillis / 1000) +
         " s, DHCPDISCOVER " + std::to_string(p.sent) + " of " + std::to_string(p.discovers) + " sent, " +
         std::to_string(p.answers) + (p.answers == 1 ? " answer" : " answers");
}

namespace {
// "what: the system's text (code)" for the socket library's last error.
std::string socketFailure(const char* what) {
  uint32_t code = net::UdpSocket::lastError();
  return std::string(what) + ": " + app::systemErrorText(code) + " (" + std::to_string(code) + ")";
}
}  // namespace

bool UdpProbeChannel::open(const std::string& interfaceName, uint32_t interfaceAddress, std::string& why) {
  if (!socket_.open() || !socket_.setReuseAddress() || !socket_.setBroadcast()) {
    why = socketFailure("cannot prepare the probe's socket");
    return false;
  }
  socket_.ignoreConnectionResets();
  // Tied to the interface where the platform can: the DHCPDISCOVER leaves
  // there without a route, and the answers to port 68 arrive there.
  if (!socket_.bindOnInterface(interfaceAddress, 68, interfaceName)) {
    why = socketFailure("cannot bind UDP port 68");
    return false;
  }
  return true;
}

bool UdpProbeChannel::send(const std::vector<uint8_t>& discover, std::string& why) {
  if (socket_.sendTo(discover.data(), discover.size(), net::kBroadcastAddress, 67) < 0) {
    why = socketFailure("cannot send the probe");
    return false;
  }
  return true;
}

bool UdpProbeChannel::receive(int waitMillis, ProbeDatagram& datagram) {
  uint8_t buffer[1500];
  uint32_t source = 0;
  // At least a millisecond: a wait of 0 would be a wait without limit.
  uint64_t waitUs = static_cast<uint64_t>(std::max(waitMillis, 1)) * 1000;
  int n = socket_.receiveWithin(buffer, sizeof buffer, waitUs, &source, nullptr);
  if (n <= 0) return false;
  datagram.bytes.assign(buffer, buffer + n);
  datagram.source = source;
  datagram.macKnown = false;
  return true;
}

bool runProbe(ProbeChannel& channel, const app::Clock& clock, const net::MacAddress& mac, uint32_t xid, int totalMillis,
              std::vector<ProbeAnswer>& answers, std::string& why, const ProbeProgressShown& progress) {
  constexpr int kProgressMillis = 250;
  answers.clear();
  const std::vector<int> times = discoverTimes(totalMillis);
  const std::vector<uint8_t> discover = makeDiscover(mac, xid);
  const uint64_t start = clock.nowMicros();
  auto elapsed = [&] { return static_cast<int>((clock.nowMicros() - start) / 1000); };
  size_t sent = 0;
  auto tell = [&] {
    if (progress) progress({std::min(elapsed(), totalMillis), totalMillis, sent, times.size(), answers.size()});
  };
  while (true) {
    int now = elapsed();
    if (sent < times.size() && now >= times[sent]) {
      if (!channel.send(discover, why)) return false;
      ++sent;
      tell();
      continue;
    }
    if (now >= totalMillis) break;
    int until = sent < times.size() ? times[sent] : totalMillis;
    ProbeDatagram datagram;
    ProbeAnswer answer;
    if (channel.receive(std::min(until - now, kProgressMillis), datagram) &&
        parseProbeAnswer(datagram.bytes.data(), datagram.bytes.size(), xid, mac, datagram.source, answer)) {
      // A server answers every DHCPDISCOVER: one line per server and offer.
      bool seen = std::any_of(answers.begin(), answers.end(), [&answer](const ProbeAnswer& a) {
        return a.server == answer.server && a.offered == answer.offered;
      });
      if (!seen) {
        answer.afterMillis = elapsed();
        answer.serverMac = datagram.sourceMac;
        answer.macKnown = datagram.macKnown || channel.lookUpMac(datagram.source, answer.serverMac);
        answers.push_back(answer);
      }
    }
    tell();
  }
  return true;
}

bool probeBootServers(const std::string& interfaceName, uint32_t interfaceAddress, const net::MacAddress& mac,
                      int totalMillis, std::vector<ProbeAnswer>& answers, std::string& why,
                      const ProbeProgressShown& progress) {
  answers.clear();
  std::unique_ptr<ProbeChannel> channel = openProbeChannel(interfaceName, interfaceAddress, why);
  if (!channel) return false;
  return runProbe(*channel, app::SteadyClock::instance(), mac, std::random_device{}(), totalMillis, answers, why,
                  progress);
}

}  // namespace tarnlift::doctor
