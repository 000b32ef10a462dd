#include "install/datagram.h"

#include "netboot/interfaces.h"

#include <cstdio>

namespace tarnlift {

bool isZeroMac(const uint8_t* mac) {
  static const uint8_t zero[6] = {0, 0, 0, 0, 0, 0};
  return std::memcmp(mac, zero, 6) == 0;
}

// The boot services print MACs and addresses the same way; one formatter each.
std::string macText(const uint8_t* mac) { return netboot::formatMac(mac); }

namespace {
int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}
}  // namespace

bool parseMac(const std::string& text, MacAddress& mac) {
  if (text.size() != 17) return false;
  for (size_t i = 0; i < 6; ++i) {
    int high = hexValue(text[i * 3]);
    int low = hexValue(text[i * 3 + 1]);
    if (high < 0 || low < 0) return false;
    if (i < 5 && text[i * 3 + 2] != ':' && text[i * 3 + 2] != '-') return false;
    mac[i] = static_cast<uint8_t>(high * 16 + low);
  }
  return true;
}

std::string dottedAddress(uint32_t networkOrder) { return netboot::formatIpv4(networkOrder); }

uint32_t parseDottedAddress(const std::string& text) {
  uint8_t bytes[4];
  size_t position = 0;
  for (int part = 0; part < 4; ++part) {
    if (position >= text.size() || text[position] < '0' || text[position] > '9') return 0xFFFFFFFFu;
    uint32_t value = 0;
    size_t digits = 0;
    while (position < text.size() && text[position] >= '0' && text[position] <= '9') {
      value = value * 10 + static_cast<uint32_t>(text[position] - '0');
      if (++digits > 3 || value > 255) return 0xFFFFFFFFu;
      ++position;
    }
    bytes[part] = static_cast<uint8_t>(value);
    if (part < 3) {
      if (position >= text.size() || text[position] != '.') return 0xFFFFFFFFu;
      ++position;
    }
  }
  if (position != text.size()) return 0xFFFFFFFFu;
  uint32_t result;
  std::memcpy(&result, bytes, 4);
  return result;
}

}  // namespace tarnlift
