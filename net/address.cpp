#include "net/address.h"

#include <cstdio>
#include <cstring>

namespace tarnlift::net {
namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

// One part of an inet_addr text: decimal, 0-prefixed octal or 0x hex. Stops
// at the first character that is not a digit of the part's base.
bool parsePart(const std::string& text, size_t& pos, uint64_t& value) {
  int base = 10;
  if (pos < text.size() && text[pos] == '0') {
    base = 8;
    if (pos + 1 < text.size() && (text[pos + 1] == 'x' || text[pos + 1] == 'X')) {
      base = 16;
      pos += 2;
    }
  }
  size_t start = pos;
  value = 0;
  while (pos < text.size()) {
    char c = text[pos];
    int digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (base == 16 && c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else if (base == 16 && c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    } else {
      break;
    }
    if (digit >= base) return false;
    value = value * base + digit;
    if (value > 0xFFFFFFFFull) return false;
    ++pos;
  }
  // "0x" alone is not a number; a lone "0" is (octal zero).
  return pos > start || base == 8;
}

}  // namespace

std::string formatMac(const uint8_t* mac) {
  char text[18];
  std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
  return text;
}

std::string formatIpv4(uint32_t address) {
  const auto* b = reinterpret_cast<const uint8_t*>(&address);
  char text[16];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
  return text;
}

uint32_t parseIpv4(const std::string& text) {
  uint64_t parts[4];
  int count = 0;
  size_t pos = 0;
  while (true) {
    if (count == 4) return kAddressNone;
    if (pos >= text.size() || !(text[pos] >= '0' && text[pos] <= '9')) return kAddressNone;
    if (!parsePart(text, pos, parts[count])) return kAddressNone;
    ++count;
    if (pos < text.size() && text[pos] == '.') {
      ++pos;
      continue;
    }
    break;
  }
  // The text ends here or at a blank; after a blank anything may follow.
  if (pos < text.size() && !isBlank(text[pos])) return kAddressNone;
  uint64_t host = 0;
  switch (count) {
    case 1:
      host = parts[0];
      break;
    case 2:
      if (parts[0] > 0xFF || parts[1] > 0xFFFFFF) return kAddressNone;
      host = parts[0] << 24 | parts[1];
      break;
    case 3:
      if (parts[0] > 0xFF || parts[1] > 0xFF || parts[2] > 0xFFFF) return kAddressNone;
      host = parts[0] << 24 | parts[1] << 16 | parts[2];
      break;
    default:
      for (int i = 0; i < 4; ++i) {
        if (parts[i] > 0xFF) return kAddressNone;
      }
      host = parts[0] << 24 | parts[1] << 16 | parts[2] << 8 | parts[3];
      break;
  }
  uint8_t bytes[4] = {uint8_t(host >> 24), uint8_t(host >> 16), uint8_t(host >> 8), uint8_t(host)};
  uint32_t network;
  static_assert(sizeof network == sizeof bytes);
  std::memcpy(&network, bytes, 4);
  return network;
}

uint32_t parseIpv4OrZero(const std::string& text) {
  uint32_t address = parseIpv4(text);
  return address == kAddressNone ? 0 : address;
}

}  // namespace tarnlift::net
