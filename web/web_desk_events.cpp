// The events: a row's changes go out as they happen, its progress and
// texts at most four times a second.
#include "web/web_desk.h"

#include <set>

namespace tarnlift::web {

using nlohmann::json;

namespace {

constexpr uint64_t kEventSpacingMicros = 250000;  // four a second per router

}  // namespace

void WebDesk::publishChanges() {
  uint64_t now = clock_.nowMicros();
  std::set<net::MacAddress> present;
  for (const auto& [mac, row] : desk_.table().rows()) {
    present.insert(mac);
    const install::RouterRecord& r = row.record;
    auto it = sent_.find(mac);
    bool known = it != sent_.end();
    Sent& sent = sent_[mac];
    // Bytes and results count once, as the rows show them.
    if (known && r.progress > sent.progress &&
        (r.status == install::kStatusInstalling || r.status == install::kStatusWaitingReboot ||
         r.status == install::kStatusDone)) {
      bytesSent_ += r.progress - sent.progress;
    }
    if (known && r.status != sent.status) {
      if (r.status == install::kStatusDone && sent.status != install::kStatusReady) ++installsDone_;
      if (r.status == install::kStatusFailed) ++installsFailed_;
    }
    bool statusChanged = !known || r.status != sent.status;
    sent.status = r.status;
    sent.progress = r.progress;
    // Progress and texts at most four times a second; a new status always,
    // so that a client sees every step of an installation in order.
    if (!statusChanged && sent.at != 0 && now - sent.at < kEventSpacingMicros) continue;
    std::string text = jsonText(routerJson(r, false));
    if (text == sent.json) continue;
    sent.json = std::move(text);
    sent.at = now;
    hub_.publishState("router", install::macText(mac), sent.json);
  }
  for (auto it = sent_.begin(); it != sent_.end();) {
    if (present.count(it->first) != 0) {
      ++it;
      continue;
    }
    hub_.publishRemoval("removed", install::macText(it->first), jsonText(json{{"mac", install::macText(it->first)}}));
    after_.erase(it->first);
    it = sent_.erase(it);
  }
}

}  // namespace tarnlift::web
