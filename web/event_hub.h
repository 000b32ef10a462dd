// The events of the console's event stream: publishers (the desk's tick, the
// log) append, every stream client reads from where it stands. Publishing
// never waits for a client: events are kept in a ring of fixed size, and a
// client that falls further behind than the ring is told so and closed.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace tarnlift::web {

struct WebEvent {
  uint64_t id = 0;
  std::string type;  // "router", "removed", "log"
  std::string data;  // one line of JSON
};

class EventHub {
 public:
  explicit EventHub(size_t capacity = 2048) : capacity_(capacity) {}

  void publish(const std::string& type, const std::string& data);
  // The id the next event will have (a new client starts here).
  uint64_t nextId() const;
  // Waits up to timeout for events from id on; copies them to out. False
  // when the oldest wanted event has already left the ring (the client fell
  // too far behind).
  bool waitFrom(uint64_t id, std::vector<WebEvent>& out, std::chrono::milliseconds timeout);
  // Wakes every waiting client (the server is stopping).
  void wakeAll();

  // The server-sent-events text of one event (id 0: without an id line).
  static std::string format(const WebEvent& event);

 private:
  size_t capacity_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<WebEvent> events_;
  uint64_t nextId_ = 1;
};

}  // namespace tarnlift::web
