#include "web/session_store.h"

#include <random>

namespace tarnlift::web {
namespace {

std::string randomHex(size_t bytes) {
  std::random_device device;
  std::string out;
  static const char* kHex = "0123456789abcdef";
  for (size_t i = 0; i < bytes; ++i) {
    unsigned v = device() & 0xFF;
    out += kHex[v >> 4];
    out += kHex[v & 15];
  }
  return out;
}

}  // namespace

bool SessionStore::live(const Session& session, uint64_t now) const {
  return now - session.lastUsed < kSessionIdleMicros && now - session.created < kSessionLifetimeMicros;
}

std::string SessionStore::create() {
  std::string id = randomHex(32);
  uint64_t now = clock_.nowMicros();
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = sessions_.begin(); it != sessions_.end();) {
    it = live(it->second, now) ? std::next(it) : sessions_.erase(it);
  }
  while (sessions_.size() >= capacity_ && !sessions_.empty()) {
    auto oldest = sessions_.begin();
    for (auto it = sessions_.begin(); it != sessions_.end(); ++it) {
      if (it->second.created < oldest->second.created) oldest = it;
    }
    sessions_.erase(oldest);
  }
  sessions_[id] = {now, now};
  return id;
}

bool SessionStore::use(const std::string& id) {
  uint64_t now = clock_.nowMicros();
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = sessions_.find(id);
  if (it == sessions_.end()) return false;
  if (!live(it->second, now)) {
    sessions_.erase(it);
    return false;
  }
  it->second.lastUsed = now;
  return true;
}

bool SessionStore::alive(const std::string& id) const {
  uint64_t now = clock_.nowMicros();
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = sessions_.find(id);
  return it != sessions_.end() && live(it->second, now);
}

void SessionStore::remove(const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  sessions_.erase(id);
}

size_t SessionStore::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sessions_.size();
}

}  // namespace tarnlift::web
