#include "web/guess_backoff.h"

#include <algorithm>

namespace tarnlift::web {
namespace {

constexpr uint64_t kSecond = 1000 * 1000;
constexpr uint32_t kLongestWait = 30;
constexpr uint64_t kForgetAfter = 15 * 60 * kSecond;

}  // namespace

uint32_t GuessBackoff::delayAfter(uint32_t failures) {
  if (failures == 0) return 0;
  if (failures > 6) return kLongestWait;
  return std::min<uint32_t>(1u << (failures - 1), kLongestWait);
}

uint32_t GuessBackoff::waitSeconds(const std::string& address) const {
  uint64_t now = clock_.nowMicros();
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = entries_.find(address);
  if (it == entries_.end() || it->second.until <= now) return 0;
  return static_cast<uint32_t>((it->second.until - now + kSecond - 1) / kSecond);
}

void GuessBackoff::forgetOld(uint64_t now) {
  for (auto it = entries_.begin(); it != entries_.end();) {
    it = now - it->second.lastFailure >= kForgetAfter ? entries_.erase(it) : std::next(it);
  }
  // Still full (a crowd of addresses guessing at once): the one that
  // failed longest ago makes room.
  while (entries_.size() >= maxAddresses_ && !entries_.empty()) {
    auto oldest = std::min_element(entries_.begin(), entries_.end(), [](const auto& a, const auto& b) {
      return a.second.lastFailure < b.second.lastFailure;
    });
    entries_.erase(oldest);
  }
}

uint32_t GuessBackoff::failed(const std::string& address) {
  uint64_t now = clock_.nowMicros();
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = entries_.find(address);
  if (it != entries_.end() && now - it->second.lastFailure >= kForgetAfter) {
    entries_.erase(it);
    it = entries_.end();
  }
  if (it == entries_.end()) {
    if (entries_.size() >= maxAddresses_) forgetOld(now);
    it = entries_.emplace(address, Entry{}).first;
  }
  Entry& e = it->second;
  ++e.failures;
  e.lastFailure = now;
  e.until = now + delayAfter(e.failures) * kSecond;
  return e.failures;
}

void GuessBackoff::succeeded(const std::string& address) {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.erase(address);
}

}  // namespace tarnlift::web
