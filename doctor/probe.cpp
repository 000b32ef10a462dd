#include "doctor/probe.h"

#include <cstring>

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

}  // namespace tarnlift::doctor
