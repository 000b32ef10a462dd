#include "install/discovery.h"

#include <cstdlib>

#include "packages/version.h"

namespace tarnlift::install {

AnnouncementKind parseAnnouncement(const MacAddress& mac, const uint8_t* payload, size_t length, int64_t nowUs,
                                   RouterRecord& record) {
  record = RouterRecord{};
  record.kind = kKindRouter;
  record.status = kStatusReady;
  record.mac = mac;
  record.lastSeen = nowUs;
  record.keepBranding = true;
  record.unprotected = true;
  if (!payloadHasTag(payload, length, "DSCV")) return AnnouncementKind::Other;

  std::vector<std::string> fields;
  std::string text(reinterpret_cast<const char*>(payload), length);
  size_t start = 0;
  while (true) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      fields.push_back(text.substr(start));
      break;
    }
    fields.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  if (fields.size() < 9) fields.resize(9);

  record.architecture = architectureFromText(fields[4]);
  if (record.architecture == 0) return AnnouncementKind::Dropped;
  record.label = fields[3];
  record.minVersion = packages::parseVersion(fields[5]);
  record.version = packages::parseVersion(fields[6]);
  const std::string& branding = fields[7];
  record.keepBranding = branding != "no";
  record.hasBranding = branding == "yes";
  record.unprotected = branding != "protected";
  record.storageSize = static_cast<uint32_t>(std::strtoul(fields[8].c_str(), nullptr, 10));
  return AnnouncementKind::Discover;
}

DiscoveredRouterQueue::DiscoveredRouterQueue() : event_(true) {}

void DiscoveredRouterQueue::push(const RouterRecord& record) {
  app::MutexLock hold(lock_, 10000);
  if (records_.empty()) event_.set();
  records_.push_back(record);
}

bool DiscoveredRouterQueue::pop(RouterRecord& record) {
  app::MutexLock hold(lock_, 10000);
  if (records_.empty()) {
    event_.reset();
    return false;
  }
  record = records_.front();
  records_.pop_front();
  if (records_.empty()) event_.reset();
  return true;
}

size_t DiscoveredRouterQueue::size() {
  app::MutexLock hold(lock_, 10000);
  return records_.size();
}

namespace {
void fillRouterCells(RouterRow& row) {
  row.labelCell = row.record.label;
  row.macCell = macText(row.record.mac);
  row.statusCell = "Ready";
  row.architectureCell = architectureColumnText(row.record.architecture);
  row.image = 0;
}
}  // namespace

bool RouterTable::addRouter(const RouterRecord& record, int64_t nowUs) {
  auto existing = rows_.find(record.mac);
  if (existing != rows_.end()) {
    RouterRecord& old = existing->second.record;
    if (old.status == kStatusReady) {
      old.lastSeen = nowUs;
      return false;
    }
    if (old.status == kStatusInstalling && nowUs - old.lastSeen < kRefreshGuardUs) return false;
    rows_.erase(existing);
  }
  RouterRow row;
  row.record = record;
  fillRouterCells(row);
  rows_[record.mac] = row;
  return true;
}

void RouterTable::addDrive(const RouterRecord& record) {
  RouterRow row;
  row.record = record;
  // The label is the drive's root as listed; the size, in the column a
  // drive has no other use for, tells the disks apart at a glance. The
  // whole description (number, size, model) is too long for a cell and
  // goes to the status bar when the row is selected.
  row.labelCell = record.label;
  row.architectureCell = record.driveSize;
  row.macCell = record.driveType == 3 ? "Hard disk" : "Removable media";
  row.statusCell = "Ready";
  row.image = record.driveType == 3 ? 3 : 4;
  rows_[record.mac] = row;
}

void RouterTable::setStatus(const MacAddress& mac, uint32_t status, uint32_t total, uint32_t progress,
                            const std::string& text) {
  RouterRow* row = find(mac);
  if (row == nullptr) return;
  if (status != row->record.status) {
    row->statusCell = statusRowText(status);
    if (row->record.kind == kKindRouter) {
      if (status == kStatusDone) row->image = 1;
      if (status == kStatusFailed) row->image = 2;
    }
  }
  row->record.status = status;
  row->record.totalSize = total;
  row->record.progress = progress;
  row->record.statusText = text;
}

size_t RouterTable::expire(int64_t nowUs) {
  size_t removed = 0;
  for (auto it = rows_.begin(); it != rows_.end();) {
    const RouterRecord& record = it->second.record;
    if (record.kind == kKindRouter && record.status == kStatusReady && nowUs - record.lastSeen > kExpiryUs) {
      it = rows_.erase(it);
      ++removed;
    } else {
      ++it;
    }
  }
  return removed;
}

void RouterTable::remove(const MacAddress& mac) { rows_.erase(mac); }

RouterRow* RouterTable::find(const MacAddress& mac) {
  auto it = rows_.find(mac);
  return it == rows_.end() ? nullptr : &it->second;
}

RouterRow* RouterTable::selected() { return find(selected_); }

}  // namespace tarnlift::install
