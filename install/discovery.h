// Router discovery: the "DSCV" announcement, the queue that carries
// discovered routers from the receiving thread to the front end, and the
// router table model that both the window and the headless front end show.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "app/sync.h"
#include "install/router_record.h"

namespace tarnlift::install {

enum class AnnouncementKind {
  Discover,  // a "DSCV" with a known architecture: the record is filled
  Dropped,   // a "DSCV" with an architecture text we do not know
  Other,     // any other broadcast message
};

// Builds the record for a broadcast from mac seen at nowUs. The payload's
// fields are separated by "\n"; field 3 label, 4 architecture, 5 minimum
// version, 6 own version, 7 branding, 8 storage size.
AnnouncementKind parseAnnouncement(const MacAddress& mac, const uint8_t* payload, size_t length, int64_t nowUs,
                                   RouterRecord& record);

// Discovered routers, oldest first. The receiving thread appends; the front
// end takes from the front. The event is set while the queue holds records.
class DiscoveredRouterQueue {
 public:
  DiscoveredRouterQueue();
  void push(const RouterRecord& record);
  bool pop(RouterRecord& record);
  size_t size();
  app::Event& event() { return event_; }

 private:
  app::Mutex lock_;
  app::Event event_;
  std::deque<RouterRecord> records_;
};

// One row of the "Routers/Drives" list.
struct RouterRow {
  RouterRecord record;
  std::string labelCell;
  std::string macCell;
  std::string statusCell;
  std::string architectureCell;
  int image = 0;  // 0 router, 1 done, 2 failed, 3 fixed disk, 4 removable
  // The router's session heard its "WTRM" (the desk keeps this from its polls).
  bool confirmed = false;
};

// The table behind the list, keyed by MAC, toolkit-neutral. Only the front
// end's thread touches it.
class RouterTable {
 public:
  static constexpr int64_t kRefreshGuardUs = 10'000'000;
  static constexpr int64_t kExpiryUs = 60'000'000;

  // Returns true when a row was inserted (the list needs sorting again).
  bool addRouter(const RouterRecord& record, int64_t nowUs);
  void addDrive(const RouterRecord& record);
  void setStatus(const MacAddress& mac, uint32_t status, uint32_t total, uint32_t progress, const std::string& text);
  // Removes "Ready" routers silent for more than 60 s; returns how many.
  size_t expire(int64_t nowUs);
  void remove(const MacAddress& mac);

  RouterRow* find(const MacAddress& mac);
  const std::map<MacAddress, RouterRow>& rows() const { return rows_; }
  size_t size() const { return rows_.size(); }

  void select(const MacAddress& mac) { selected_ = mac; }
  // The selected row, or null.
  RouterRow* selected();

 private:
  std::map<MacAddress, RouterRow> rows_;
  MacAddress selected_{};
};

}  // namespace tarnlift::install
