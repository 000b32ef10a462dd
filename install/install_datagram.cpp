#include "install/install_datagram.h"

#include <cstdio>

namespace tarnlift::install {

bool isZeroMac(const uint8_t* mac) {
  static const uint8_t zero[6] = {0, 0, 0, 0, 0, 0};
  return std::memcmp(mac, zero, 6) == 0;
}

std::string dottedAddress(uint32_t networkOrder) { return net::formatIpv4(networkOrder); }

uint32_t parseDottedAddress(const std::string& text) { return net::parseIpv4(text); }

}  // namespace tarnlift::install
