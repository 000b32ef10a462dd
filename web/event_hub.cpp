#include "web/event_hub.h"

namespace tarnlift::web {

void EventHub::publish(const std::string& type, const std::string& data) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back({nextId_++, type, data});
    if (events_.size() > capacity_) events_.pop_front();
  }
  changed_.notify_all();
}

uint64_t EventHub::nextId() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return nextId_;
}

bool EventHub::waitFrom(uint64_t id, std::vector<WebEvent>& out, std::chrono::milliseconds timeout) {
  out.clear();
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, timeout, [&] { return nextId_ > id; });
  if (events_.empty() || id >= nextId_) return true;
  if (events_.front().id > id) return false;
  for (auto it = events_.begin() + static_cast<std::ptrdiff_t>(id - events_.front().id); it != events_.end(); ++it) {
    out.push_back(*it);
  }
  return true;
}

void EventHub::wakeAll() { changed_.notify_all(); }

std::string EventHub::format(const WebEvent& event) {
  std::string text;
  if (event.id != 0) text = "id: " + std::to_string(event.id) + "\n";
  text += "event: " + event.type + "\ndata: ";
  // Data is one line of JSON; a line break in it would end the field.
  for (char c : event.data) {
    if (c == '\n') {
      text += "\ndata: ";
    } else if (c != '\r') {
      text += c;
    }
  }
  text += "\n\n";
  return text;
}

}  // namespace tarnlift::web
