// Hardware and IPv4 address text, shared by every network subsystem.
// IPv4 values are in network byte order, as inet_addr gives them.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace tarnlift::net {

using MacAddress = std::array<uint8_t, 6>;

// The value that inet_addr answers for text that is not an address; it is
// also the value of the text "255.255.255.255".
inline constexpr uint32_t kAddressNone = 0xFFFFFFFFu;

// "%02X:%02X:%02X:%02X:%02X:%02X".
std::string formatMac(const uint8_t* mac);
inline std::string formatMac(const MacAddress& mac) { return formatMac(mac.data()); }

// Dotted quad of a network-order address.
std::string formatIpv4(uint32_t address);

// inet_addr's rules, the same on every platform: one to four parts separated
// by dots ("a" is the whole address, "a.b" puts b in the low 24 bits, "a.b.c"
// puts c in the low 16 bits); each part decimal, octal with a leading 0 or
// hexadecimal with a leading 0x; a blank ends the text and whatever follows
// it is ignored. Anything else gives kAddressNone.
uint32_t parseIpv4(const std::string& text);

// parseIpv4 for the fields whose unparsable text means "no address": the
// all-ones result (bad text, or the text 255.255.255.255) becomes 0.
uint32_t parseIpv4OrZero(const std::string& text);

}  // namespace tarnlift::net
