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

// "%02X:%02X:%02X:%02X:%02X:%02X": upper-case, colon-separated.
std::string formatMac(const uint8_t* mac);
inline std::string formatMac(const MacAddress& mac) { return formatMac(mac.data()); }

// Six two-digit hexadecimal bytes (either case) separated by colons or
// dashes, "AA:BB:CC:DD:EE:FF" or "aa-bb-cc-dd-ee-ff"; false on anything else.
bool parseMac(const std::string& text, MacAddress& mac);

// Dotted quad of a network-order address.
std::string formatIpv4(uint32_t address);

// The same address in the other byte order: host order is what ranges and
// prefix arithmetic count in (10.0.0.1 is 0x0A000001), network order what
// the sockets and the parsers below give.
uint32_t hostOrder(uint32_t networkOrder);
uint32_t networkOrder(uint32_t hostOrder);

// Dotted quad of a host-order address (a pool's or a listener's).
inline std::string formatHostOrderIpv4(uint32_t address) { return formatIpv4(networkOrder(address)); }
// Dotted quad of a network-order address, or "" for 0 (no address chosen).
inline std::string formatIpv4OrEmpty(uint32_t address) { return address == 0 ? std::string() : formatIpv4(address); }

// inet_addr's rules, the same on every platform: one to four parts separated
// by dots ("a" is the whole address, "a.b" puts b in the low 24 bits, "a.b.c"
// puts c in the low 16 bits); each part decimal, octal with a leading 0 or
// hexadecimal with a leading 0x; a blank ends the text and whatever follows
// it is ignored. Anything else gives kAddressNone.
uint32_t parseIpv4(const std::string& text);

// parseIpv4 for the fields whose unparsable text means "no address": the
// all-ones result (bad text, or the text 255.255.255.255) becomes 0.
uint32_t parseIpv4OrZero(const std::string& text);

// The strict reading for addresses a person writes into an option, a file
// or a request, where inet_addr's other forms ("1", "0x7f.1", octal "010")
// would surprise: exactly four decimal parts of one to three digits, each at
// most 255, separated by single dots, nothing before or after (no blanks).
// A leading zero is still decimal: "010" is ten. On success the address (in
// network order) is stored; on anything else false, and address is left.
bool parseDottedQuad(const std::string& text, uint32_t& address);

}  // namespace tarnlift::net
