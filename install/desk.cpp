#include "install/desk.h"

#include <algorithm>

namespace tarnlift::install {

InstallDesk::InstallDesk(RouterInstaller& routers, DriveInstaller& drives, packages::PackageSets& sets,
                         RememberedChoices& remembered, const app::Clock& clock)
    : routers_(routers), drives_(drives), sets_(sets), remembered_(remembered), clock_(clock) {}

bool InstallDesk::isDriveMac(const MacAddress& mac) {
  return std::all_of(mac.begin(), mac.begin() + 5, [](uint8_t b) { return b == 0xFF; });
}

namespace {
void applyPrevious(packages::PackageSets& sets, const std::string& packageDir, RouterRecord& record) {
  packages::PackageChoice choice{record.setName, record.packageDir, record.files};
  if (!sets.applyPreviousInstall(choice) && !packageDir.empty()) choice.folder = packageDir;
  record.setName = choice.setName;
  record.packageDir = choice.folder;
  record.files = choice.files;
}
}  // namespace

void InstallDesk::prepareNewRouter(RouterRecord& record) const {
  applyPrevious(sets_, packageDir_, record);
  remembered_.applyTo(record);
}

void InstallDesk::prepareNewDrive(RouterRecord& record) const {
  applyPrevious(sets_, packageDir_, record);
  record.baudRate = remembered_.baudRate;
}

size_t InstallDesk::addDrives() {
  std::vector<RouterRecord> drives = drives_.listDrives();
  for (RouterRecord& drive : drives) {
    prepareNewDrive(drive);
    table_.addDrive(drive);
  }
  return drives.size();
}

std::vector<MacAddress> InstallDesk::drainDiscovered() {
  std::vector<MacAddress> added;
  RouterRecord record;
  while (routers_.popDiscovered(record)) {
    prepareNewRouter(record);
    if (table_.addRouter(record, static_cast<int64_t>(clock_.nowMicros()))) added.push_back(record.mac);
  }
  return added;
}

bool InstallDesk::age() { return table_.expire(static_cast<int64_t>(clock_.nowMicros())) != 0; }

std::vector<DeskNews> InstallDesk::poll() {
  std::vector<DeskNews> result;
  std::vector<MacAddress> busy;
  for (const auto& [mac, row] : table_.rows()) {
    if (row.record.status == kStatusInstalling || row.record.status == kStatusWaitingReboot) busy.push_back(mac);
  }
  for (const MacAddress& mac : busy) {
    RouterRow* row = table_.find(mac);
    DeskNews news;
    news.mac = mac;
    news.isDrive = row->record.kind == kKindDrive;
    news.previousStatus = row->record.status;
    news.previousProgress = row->record.progress;
    news.previousText = row->record.statusText;
    news.previousConfirmed = row->confirmed;
    if (news.isDrive) {
      news.hadNews = drives_.status(mac, news.status);
      if (!news.hadNews) drives_.cancel(mac);
    } else {
      // A router's session always answers; when it is gone (the router
      // started over) the row takes status 0 until the router announces
      // itself again and replaces it.
      news.status = routers_.status(mac);
      news.hadNews = true;
    }
    if (news.hadNews) {
      uint32_t total = news.status.total != 0 ? news.status.total : row->record.totalSize;
      news.status.total = total;
      table_.setStatus(mac, news.status.status, total, news.status.progress, news.status.statusText);
      row->confirmed = news.status.confirmed;
    }
    result.push_back(news);
  }
  return result;
}

void InstallDesk::actAfterInstall(const MacAddress& mac, AfterInstall after) {
  if (after == AfterInstall::Reboot) routers_.reboot(mac);
  if (after == AfterInstall::Shutdown) routers_.shutdown(mac);
}

bool InstallDesk::actAfterInstallOnce(const DeskNews& news, AfterInstall after) {
  if (!afterInstallDue(news) || after == AfterInstall::None) return false;
  actAfterInstall(news.mac, after);
  return true;
}

void InstallDesk::showFirstStatus(const MacAddress& mac) {
  RouterRow* row = table_.find(mac);
  if (row == nullptr) return;
  SessionStatus s;
  if (row->record.kind == kKindDrive) {
    // A drive's thread may not have reported yet: it is installing.
    if (!drives_.status(mac, s)) s = {kStatusInstalling, 0, 0, ""};
  } else {
    s = routers_.status(mac);
  }
  table_.setStatus(mac, s.status, s.total != 0 ? s.total : row->record.totalSize, s.progress, s.statusText);
}

InstallDesk::TickResult InstallDesk::tick() {
  ++ticks_;
  if (ticks_ % 4 == 0 && sendBeacon_) sendBeacon_();
  TickResult result;
  result.added = drainDiscovered();
  result.tableChanged = !result.added.empty();
  if (age()) result.tableChanged = true;
  result.news = poll();
  return result;
}

}  // namespace tarnlift::install
