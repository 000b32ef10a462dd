// The console's login sessions: random ids handed out as a cookie, each
// ending after 12 hours without a request or 7 days after the login,
// whichever comes first, or at logout. At most a fixed number are kept;
// a login beyond it ends the oldest. Times come from an injectable clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "app/clock.h"

namespace tarnlift::web {

inline constexpr uint64_t kSessionIdleMicros = 12ull * 3600 * 1000 * 1000;
inline constexpr uint64_t kSessionLifetimeMicros = 7ull * 24 * 3600 * 1000 * 1000;
inline constexpr size_t kMaxSessions = 256;

class SessionStore {
 public:
  explicit SessionStore(const app::Clock& clock, size_t capacity = kMaxSessions) : clock_(clock), capacity_(capacity) {}

  // A new session's id (256 random bits as hex).
  std::string create();
  // Whether id is a live session; a request with it counts as activity.
  bool use(const std::string& id);
  // Whether id is a live session, without counting as activity (an open
  // event stream does not keep its session alive).
  bool alive(const std::string& id) const;
  void remove(const std::string& id);
  size_t size() const;

 private:
  struct Session {
    uint64_t created = 0;
    uint64_t lastUsed = 0;
  };
  bool live(const Session& session, uint64_t now) const;

  const app::Clock& clock_;
  size_t capacity_;
  mutable std::mutex mutex_;
  std::map<std::string, Session> sessions_;
};

}  // namespace tarnlift::web
