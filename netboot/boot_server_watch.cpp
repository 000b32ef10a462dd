#include "netboot/boot_server_watch.h"

#include <algorithm>
#include <cstring>

#include "netboot/bootp.h"

namespace tarnlift::netboot {
namespace {

constexpr size_t kCookieOffset = 236;
constexpr size_t kOptionsOffset = 240;
constexpr uint8_t kCookie[4] = {99, 130, 83, 99};
constexpr uint8_t kOptionServerIdentifier = 54;

// The fixed part up to the file name and the Ethernet hardware type and
// length: anything shorter or of another kind names no client we can match.
bool ethernetMessage(const uint8_t* datagram, size_t length, uint8_t op) {
  return length >= kCookieOffset && datagram[0] == op && datagram[1] == 1 && datagram[2] == 6;
}

// Option 54 of a DHCP reply, network order; 0 when absent or when the
// options are cut short.
uint32_t serverIdentifier(const uint8_t* datagram, size_t length) {
  if (length < kOptionsOffset || std::memcmp(datagram + kCookieOffset, kCookie, 4) != 0) return 0;
  size_t pos = kOptionsOffset;
  while (pos < length) {
    uint8_t code = datagram[pos];
    if (code == kBootpOptionPad) {
      ++pos;
      continue;
    }
    if (code == kBootpOptionEnd || pos + 1 >= length) break;
    size_t optionLength = datagram[pos + 1];
    if (pos + 2 + optionLength > length) break;
    if (code == kOptionServerIdentifier && optionLength == 4) {
      uint32_t address;
      std::memcpy(&address, datagram + pos + 2, 4);
      return address;
    }
    pos += 2 + optionLength;
  }
  return 0;
}

}  // namespace

std::string foreignReplyText(const ForeignReply& reply) {
  return "another boot server answered " + formatMac(reply.client) + ": " + formatIpv4(reply.server);
}

void BootServerWatch::noteRequest(const uint8_t* datagram, size_t length) {
  if (!ethernetMessage(datagram, length, 1)) return;
  MacAddress mac;
  std::memcpy(mac.data(), datagram + kBootpChaddrOffset, 6);
  auto it = std::find(clients_.begin(), clients_.end(), mac);
  if (it != clients_.end()) clients_.erase(it);
  clients_.push_back(mac);
  if (clients_.size() > kWatchClientLimit) clients_.pop_front();
}

bool BootServerWatch::knowsClient(const MacAddress& mac) const {
  return std::find(clients_.begin(), clients_.end(), mac) != clients_.end();
}

bool BootServerWatch::hearReply(const uint8_t* datagram, size_t length, uint32_t sourceAddress, uint16_t sourcePort,
                                ForeignReply& reply) {
  if (datagram == nullptr || sourcePort != 67 || !ethernetMessage(datagram, length, 2)) return false;
  MacAddress mac;
  std::memcpy(mac.data(), datagram + kBootpChaddrOffset, 6);
  if (!knowsClient(mac)) return false;
  // A DHCP server names itself in option 54, which stays right when a relay
  // agent passes the reply on from its own address; a plain BOOTP reply has
  // only its source address. siaddr is the next server to boot from, which
  // need not be the one that answered.
  uint32_t identifier = serverIdentifier(datagram, length);
  uint32_t server = identifier != 0 ? identifier : sourceAddress;
  if (server == 0 || sourceAddress == ownAddress_ || server == ownAddress_) return false;

  uint64_t now = clock_.nowMicros();
  auto it = reported_.find(server);
  if (it != reported_.end() && now - it->second < kWatchReportIntervalMicros) return false;
  reported_[server] = now;
  if (reported_.size() > kWatchServerLimit) {
    auto oldest = std::min_element(reported_.begin(), reported_.end(),
                                   [](const auto& a, const auto& b) { return a.second < b.second; });
    reported_.erase(oldest);
  }
  reply.client = mac;
  reply.server = server;
  return true;
}

}  // namespace tarnlift::netboot
