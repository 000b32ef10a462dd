// The address pool: `A.B.C.D-A.B.C.E/BITS`, from which each router without
// an address of its own gets the next free one. No address goes out twice
// in a run, addresses the inventory gives are never handed out, and the MAC
// each address went to is remembered (as text for the settings store), so a
// router installed again gets its address again.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "install/install_datagram.h"

namespace tarnlift::install {

class AddressPool {
 public:
  // Reads `A.B.C.D-A.B.C.E/BITS` (first not above last, BITS 1..32); false
  // with a message otherwise.
  bool parse(const std::string& text, std::string& error);
  // An address (host order) that is not the pool's to give.
  void reserve(uint32_t address) { taken_.insert(address); }
  // The remembered pairs, as rememberedText() wrote them; bad pairs and
  // addresses outside the pool are dropped.
  void loadRemembered(const std::string& text);
  std::string rememberedText() const;

  // The address (host order) for this router: the remembered one when it is
  // still free, else the next free one; 0 when the pool is used up.
  uint32_t addressFor(const MacAddress& mac);
  uint32_t netmaskBits() const { return bits_; }
  bool empty() const { return first_ == 0; }

  // The pool counts in host order; install choices hold addresses in
  // network order, as inet_addr gives them (net::hostOrder/networkOrder).

 private:
  uint32_t first_ = 0;
  uint32_t last_ = 0;
  uint32_t bits_ = 0;
  std::set<uint32_t> taken_;                 // given out this run, or reserved
  std::map<MacAddress, uint32_t> assigned_;  // remembered across runs
};

}  // namespace tarnlift::install
