// The installation protocol's datagram: a 20-byte little-endian header
// (source MAC, destination MAC, two reserved bytes, payload length,
// sequence, acknowledgement) followed by a text payload that starts with a
// four-letter tag. Routers have no IP configuration yet, so peers are named
// by MAC inside the header and every datagram is an IP broadcast.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "net/address.h"

namespace tarnlift::install {

using MacAddress = net::MacAddress;

inline constexpr size_t kHeaderSize = 20;
inline constexpr size_t kDatagramBufferSize = 4096;
inline constexpr size_t kMaxPayload = kDatagramBufferSize - kHeaderSize;
// 1452 + 20 + UDP 8 + IP 20 = 1500: one Ethernet frame per chunk.
inline constexpr size_t kChunkSize = 1452;

inline constexpr uint16_t kInstallPort = 5000;
inline constexpr uint16_t kInstallBackupPort = 59813;
inline constexpr uint16_t kBeaconPort = 5010;
inline constexpr uint16_t kProbePort = 12345;

// Header field offsets.
inline constexpr size_t kSourceMacOffset = 0;
inline constexpr size_t kDestinationMacOffset = 6;
inline constexpr size_t kPayloadLengthOffset = 14;
inline constexpr size_t kSequenceOffset = 16;
inline constexpr size_t kAcknowledgementOffset = 18;

inline uint16_t readLe16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline void writeLe16(uint8_t* p, uint16_t value) {
  p[0] = static_cast<uint8_t>(value & 0xFF);
  p[1] = static_cast<uint8_t>(value >> 8);
}

inline uint16_t payloadLengthOf(const uint8_t* datagram) { return readLe16(datagram + kPayloadLengthOffset); }
inline uint16_t sequenceOf(const uint8_t* datagram) { return readLe16(datagram + kSequenceOffset); }
inline uint16_t acknowledgementOf(const uint8_t* datagram) { return readLe16(datagram + kAcknowledgementOffset); }
inline const uint8_t* sourceMacOf(const uint8_t* datagram) { return datagram + kSourceMacOffset; }
inline const uint8_t* destinationMacOf(const uint8_t* datagram) { return datagram + kDestinationMacOffset; }

inline MacAddress toMac(const uint8_t* bytes) {
  MacAddress mac;
  std::memcpy(mac.data(), bytes, mac.size());
  return mac;
}

// True when all six bytes are zero: "no particular addressee".
bool isZeroMac(const uint8_t* mac);
inline bool isZeroMac(const MacAddress& mac) { return isZeroMac(mac.data()); }

// MAC text, written and read as everywhere else (net/address.h); macText is
// the installer's long-standing name for net::formatMac.
inline std::string macText(const uint8_t* mac) { return net::formatMac(mac); }
inline std::string macText(const MacAddress& mac) { return net::formatMac(mac); }
using net::parseMac;

// Dotted text for an IPv4 address held in network order (as inet_addr gives it).
std::string dottedAddress(uint32_t networkOrder);
// Parses IPv4 text into network order by inet_addr's rules (net/address.h);
// the all-ones value for text that is not an address.
uint32_t parseDottedAddress(const std::string& text);

// True when the payload of a datagram starts with the four-letter tag.
inline bool payloadHasTag(const uint8_t* payload, size_t length, const char* tag) {
  return length >= 4 && std::memcmp(payload, tag, 4) == 0;
}

}  // namespace tarnlift::install
