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

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string formatMac(const uint8_t* mac) {
  char text[18];
  std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
  return text;
}

bool parseMac(const std::string& text, MacAddress& mac) {
  if (text.size() != 17) return false;
  MacAddress parsed{};
  for (size_t i = 0; i < 6; ++i) {
    int high = hexDigit(text[i * 3]);
    int low = hexDigit(text[i * 3 + 1]);
    if (high < 0 || low < 0) return false;
    if (i < 5 && text[i * 3 + 2] != ':' && text[i * 3 + 2] != '-') return false;
    parsed[i] = static_cast<uint8_t>(high * 16 + low);
  }
  mac = parsed;
  return true;
}

std::string formatIpv4(uint32_t address) {
  const auto* b = reinterpret_cast<const uint8_t*>(&address);
  char text[16];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
  return text;
}

uint32_t hostOrder(uint32_t networkOrder) {
  const auto* b = reinterpret_cast<const uint8_t*>(&networkOrder);
  return uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3];
}

uint32_t networkOrder(uint32_t hostOrder) {
  const uint8_t bytes[4] = {uint8_t(hostOrder >> 24), uint8_t(hostOrder >> 16), uint8_t(hostOrder >> 8),
                            uint8_t(hostOrder)};
  uint32_t value;
  static_assert(sizeof value == sizeof bytes);
  std::memcpy(&value, bytes, sizeof value);
  return value;
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
  return networkOrder(static_cast<uint32_t>(host));
}

uint32_t parseIpv4OrZero(const std::string& text) {
  uint32_t address = parseIpv4(text);
  return address == kAddressNone ? 0 : address;
}

bool parseDottedQuad(const std::string& text, uint32_t& address) {
  uint32_t host = 0;
  size_t pos = 0;
  for (int part = 0; part < 4; ++part) {
    if (part > 0) {
      if (pos >= text.size() || text[pos] != '.') return false;
      ++pos;
    }
    size_t start = pos;
    uint32_t value = 0;
    while (pos < text.size() && pos - start < 3 && text[pos] >= '0' && text[pos] <= '9') {
      value = value * 10 + static_cast<uint32_t>(text[pos] - '0');
      ++pos;
    }
    if (pos == start || value > 255) return false;
    host = host << 8 | value;
  }
  if (pos != text.size()) return false;
  address = networkOrder(host);
  return true;
}

}  // namespace tarnlift::net
