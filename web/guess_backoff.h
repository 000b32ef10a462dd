// Slows down token guessing: each wrong token (a login or a Bearer header)
// from a client address makes that address wait before its next try, 1 s
// after the first, then 2, 4, 8, 16 and at most 30 s. A right token clears
// the address's count; so do 15 minutes without a wrong one. Other
// addresses are not slowed by it: an operator elsewhere logs in at once.
// Times come from an injectable clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "app/clock.h"

namespace tarnlift::web {

class GuessBackoff {
 public:
  explicit GuessBackoff(const app::Clock& clock, size_t maxAddresses = 4096)
      : clock_(clock), maxAddresses_(maxAddresses) {}

  // The wait imposed after this many wrong tokens in a row, in seconds.
  static uint32_t delayAfter(uint32_t failures);
  // How long address must still wait before it may try a token, in whole
  // seconds rounded up (0: it may try now).
  uint32_t waitSeconds(const std::string& address) const;
  // A wrong token from address; the number of wrong tokens in a row.
  uint32_t failed(const std::string& address);
  void succeeded(const std::string& address);

 private:
  struct Entry {
    uint32_t failures = 0;
    uint64_t lastFailure = 0;  // µs
    uint64_t until = 0;        // µs: no try before
  };
  void forgetOld(uint64_t now);

  const app::Clock& clock_;
  size_t maxAddresses_;
  mutable std::mutex mutex_;
  std::map<std::string, Entry> entries_;
};

}  // namespace tarnlift::web
