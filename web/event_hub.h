// The events of the console's event stream: publishers (the desk's tick, the
// log) append, every stream client reads from where it stands. Publishing
// never waits for a client: events are kept in a ring bounded in count and
// in bytes, and the hub keeps the newest state of every router besides, so
// that a new client, or one that fell behind, starts from the present
// instead of from a backlog it would have to copy.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "app/clock.h"
#include "web/http_message.h"

namespace tarnlift::web {

struct WebEvent {
  uint64_t id = 0;
  std::string type;  // "router", "removed", "log"
  std::string data;  // one line of JSON
};

inline constexpr size_t kEventRingCount = 2048;
inline constexpr size_t kEventRingBytes = 4 * 1024 * 1024;

class EventHub {
 public:
  explicit EventHub(size_t capacity = kEventRingCount, size_t byteCapacity = kEventRingBytes)
      : capacity_(capacity), byteCapacity_(byteCapacity) {}

  void publish(const std::string& type, const std::string& data);
  // An event that is also the newest state of key (a router's MAC): kept
  // until replaced or removed.
  void publishState(const std::string& type, const std::string& key, const std::string& data);
  // An event that ends the state of key.
  void publishRemoval(const std::string& type, const std::string& key, const std::string& data);

  // The id the next event will have.
  uint64_t nextId() const;
  // Copies the events from id on, about maxBytes of them at most (at least
  // one). False when the event id has already left the ring.
  bool eventsFrom(uint64_t id, std::vector<WebEvent>& out, size_t maxBytes = SIZE_MAX) const;
  // Appends the server-sent-events text of the events from next on to out,
  // about room bytes at most (at least one event), and moves next past
  // them. False when next has already left the ring.
  bool appendFrom(uint64_t& next, std::string& out, size_t room) const;
  // How many bytes of stream text a reader at id has still to read;
  // SIZE_MAX when id has left the ring.
  size_t bytesFrom(uint64_t id) const;
  // The newest state of every key (events without an id), and the id of
  // the first event after them, taken together.
  std::vector<WebEvent> snapshot(uint64_t& next) const;

  size_t size() const;
  size_t bytes() const;

  // The server-sent-events text of one event (id 0: without an id line).
  static std::string format(const WebEvent& event);

 private:
  struct Stored {
    WebEvent event;
    std::string text;        // formatted once for every client
    uint64_t endOffset = 0;  // stream bytes published up to and with this event
  };
  static size_t cost(const Stored& stored) {
    return stored.event.type.size() + stored.event.data.size() + stored.text.size();
  }
  void append(WebEvent event);
  // Hands take the stored events from id on, about room bytes of them (at
  // least one); false when id has left the ring.
  template <typename Take>
  bool walkFrom(uint64_t id, size_t room, Take take) const;

  size_t capacity_;
  size_t byteCapacity_;
  mutable std::mutex mutex_;
  std::deque<Stored> events_;
  uint64_t nextId_ = 1;
  uint64_t published_ = 0;  // stream bytes of all events ever
  size_t held_ = 0;         // bytes the ring holds
  std::map<std::string, WebEvent> states_;
};

// One client's event stream: the present state first, then each event in
// order. A client that falls more than its byte budget behind (or out of
// the ring) is sent "resync" and the present state again, and goes on from
// there: what it missed is not kept for it. Between events a comment keeps
// the connection open.
class EventStream : public ResponseStream {
 public:
  struct Options {
    int keepAliveMillis = 15000;
    size_t budgetBytes = 1024 * 1024;
  };
  // allowed: asked before each piece (the session still exists); null: always.
  EventStream(const EventHub& hub, const app::Clock& clock, std::function<bool()> allowed, Options options);

  bool pull(std::string& out, size_t room) override;
  // From any thread: the stream ends at its next pull.
  void end() { ended_ = true; }
  bool ended() const { return ended_.load(); }

 private:
  void appendPresent(std::string& out);

  const EventHub& hub_;
  const app::Clock& clock_;
  std::function<bool()> allowed_;
  Options options_;
  std::atomic<bool> ended_{false};
  bool started_ = false;
  uint64_t next_ = 0;
  uint64_t lastWriteMicros_ = 0;
};

}  // namespace tarnlift::web
