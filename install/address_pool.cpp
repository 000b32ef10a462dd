#include "install/address_pool.h"

#include <sstream>

namespace tarnlift::install {

namespace {

// A strict dotted quad (net/address.h), in host order for the range arithmetic.
bool parseDotted(const std::string& text, uint32_t& address) {
  uint32_t networkOrder = 0;
  if (!net::parseDottedQuad(text, networkOrder)) return false;
  address = net::hostOrder(networkOrder);
  return true;
}

}  // namespace


bool AddressPool::parse(const std::string& text, std::string& error) {
  error = "--address-pool needs A.B.C.D-A.B.C.E/BITS, such as 10.0.0.10-10.0.0.99/24, not '" + text + "'";
  size_t dash = text.find('-');
  size_t slash = text.find('/');
  if (dash == std::string::npos || slash == std::string::npos || slash < dash) return false;
  uint32_t first = 0, last = 0;
  if (!parseDotted(text.substr(0, dash), first) || !parseDotted(text.substr(dash + 1, slash - dash - 1), last)) {
    return false;
  }
  std::string bitsText = text.substr(slash + 1);
  if (bitsText.empty() || bitsText.size() > 2 || bitsText.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  uint32_t bits = static_cast<uint32_t>(std::stoul(bitsText));
  if (bits < 1 || bits > 32 || first == 0 || first > last) return false;
  first_ = first;
  last_ = last;
  bits_ = bits;
  error.clear();
  return true;
}

void AddressPool::loadRemembered(const std::string& text) {
  std::stringstream stream(text);
  std::string pair;
  std::set<uint32_t> seen;
  while (std::getline(stream, pair, ';')) {
    size_t equals = pair.find('=');
    if (equals == std::string::npos) continue;
    MacAddress mac{};
    uint32_t address = 0;
    if (!parseMac(pair.substr(0, equals), mac) || !parseDotted(pair.substr(equals + 1), address)) continue;
    if (address < first_ || address > last_ || !seen.insert(address).second) continue;
    assigned_[mac] = address;
  }
}

std::string AddressPool::rememberedText() const {
  std::string text;
  for (const auto& [mac, address] : assigned_) {
    if (!text.empty()) text += ';';
    text += macText(mac) + "=" + net::formatHostOrderIpv4(address);
  }
  return text;
}

uint32_t AddressPool::addressFor(const MacAddress& mac) {
  if (empty()) return 0;
  auto known = assigned_.find(mac);
  if (known != assigned_.end() && taken_.count(known->second) == 0) {
    taken_.insert(known->second);
    return known->second;
  }
  // Next free: neither given out this run nor remembered for another router.
  std::set<uint32_t> promised;
  for (const auto& [other, address] : assigned_) {
    if (other != mac) promised.insert(address);
  }
  for (uint64_t a = first_; a <= last_; ++a) {
    uint32_t address = static_cast<uint32_t>(a);
    if (taken_.count(address) != 0 || promised.count(address) != 0) continue;
    taken_.insert(address);
    assigned_[mac] = address;
    return address;
  }
  return 0;
}

}  // namespace tarnlift::install
