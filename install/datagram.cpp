#include "install/datagram.h"

#include <cstdio>

namespace tarnlift {

bool isZeroMac(const uint8_t* mac) {
  static const uint8_t zero[6] = {0, 0, 0, 0, 0, 0};
  return std::memcmp(mac, zero, 6) == 0;
}

// The boot services print MACs and addresses the same way; one formatter each.
std::string macText(const uint8_t* mac) { return net::formatMac(mac); }

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

std::string dottedAddress(uint32_t networkOrder) { return net::formatIpv4(networkOrder); }

uint32_t parseDottedAddress(const std::string& text) { return net::parseIpv4(text); }

}  // namespace tarnlift
