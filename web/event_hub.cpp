#include "web/event_hub.h"

namespace tarnlift::web {

void EventHub::append(WebEvent event) {
  event.id = nextId_++;
  Stored stored;
  stored.text = format(event);
  stored.event = std::move(event);
  published_ += stored.text.size();
  held_ += cost(stored);
  stored.endOffset = published_;
  events_.push_back(std::move(stored));
  // The newest event always stays, however big.
  while (events_.size() > 1 && (events_.size() > capacity_ || held_ > byteCapacity_)) {
    held_ -= cost(events_.front());
    events_.pop_front();
  }
}

void EventHub::publish(const std::string& type, const std::string& data) {
  std::lock_guard<std::mutex> lock(mutex_);
  append({0, type, data});
}

void EventHub::publishState(const std::string& type, const std::string& key, const std::string& data) {
  std::lock_guard<std::mutex> lock(mutex_);
  states_[key] = {0, type, data};
  append({0, type, data});
}

void EventHub::publishRemoval(const std::string& type, const std::string& key, const std::string& data) {
  std::lock_guard<std::mutex> lock(mutex_);
  states_.erase(key);
  append({0, type, data});
}

uint64_t EventHub::nextId() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return nextId_;
}

template <typename Take>
bool EventHub::walkFrom(uint64_t id, size_t room, Take take) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (id >= nextId_) return true;
  if (events_.empty() || events_.front().event.id > id) return false;
  size_t taken = 0;
  for (auto it = events_.begin() + static_cast<std::ptrdiff_t>(id - events_.front().event.id); it != events_.end();
       ++it) {
    if (taken != 0 && taken + it->text.size() > room) break;
    taken += it->text.size();
    take(*it);
  }
  return true;
}

bool EventHub::eventsFrom(uint64_t id, std::vector<WebEvent>& out, size_t maxBytes) const {
  out.clear();
  return walkFrom(id, maxBytes, [&](const Stored& stored) { out.push_back(stored.event); });
}

bool EventHub::appendFrom(uint64_t& next, std::string& out, size_t room) const {
  return walkFrom(next, room, [&](const Stored& stored) {
    out += stored.text;
    next = stored.event.id + 1;
  });
}

size_t EventHub::bytesFrom(uint64_t id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (id >= nextId_) return 0;
  if (events_.empty() || events_.front().event.id > id) return SIZE_MAX;
  const Stored& first = events_[static_cast<size_t>(id - events_.front().event.id)];
  return static_cast<size_t>(published_ - (first.endOffset - first.text.size()));
}

std::vector<WebEvent> EventHub::snapshot(uint64_t& next) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<WebEvent> out;
  out.reserve(states_.size());
  for (const auto& [key, event] : states_) out.push_back(event);
  next = nextId_;
  return out;
}

size_t EventHub::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_.size();
}

size_t EventHub::bytes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return held_;
}

std::string EventHub::format(const WebEvent& event) {
  std::string text;
  if (event.id != 0) text = "id: " + std::to_string(event.id) + "\n";
  text += "event: " + event.type + "\ndata: ";
  // Data is one line of JSON; a line break in it would end the field.
  size_t start = 0;
  while (start <= event.data.size()) {
    size_t end = event.data.find_first_of("\r\n", start);
    if (end == std::string::npos) end = event.data.size();
    text.append(event.data, start, end - start);
    if (end < event.data.size() && event.data[end] == '\n') text += "\ndata: ";
    start = end + 1;
  }
  text += "\n\n";
  return text;
}

EventStream::EventStream(const EventHub& hub, const app::Clock& clock, std::function<bool()> allowed, Options options)
    : hub_(hub), clock_(clock), allowed_(std::move(allowed)), options_(options) {}

void EventStream::appendPresent(std::string& out) {
  for (const WebEvent& e : hub_.snapshot(next_)) out += EventHub::format(e);
}

bool EventStream::pull(std::string& out, size_t room) {
  if (ended_ || (allowed_ && !allowed_())) {
    ended_ = true;
    return false;
  }
  uint64_t now = clock_.nowMicros();
  size_t before = out.size();
  if (!started_) {
    started_ = true;
    out += "retry: 2000\n\n";
    appendPresent(out);
  } else if (hub_.bytesFrom(next_) > options_.budgetBytes) {
    // Too far behind: what it missed is not copied for it; it starts over
    // from the present state.
    out += "event: resync\ndata: {}\n\n";
    appendPresent(out);
  } else {
    hub_.appendFrom(next_, out, room);
    if (out.size() == before && now - lastWriteMicros_ >= static_cast<uint64_t>(options_.keepAliveMillis) * 1000) {
      out += ": keep-alive\n\n";
    }
  }
  if (out.size() != before) lastWriteMicros_ = now;
  return true;
}

}  // namespace tarnlift::web
