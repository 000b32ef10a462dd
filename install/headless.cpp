#include "install/headless.h"

#include <algorithm>

#include "app/log.h"

namespace tarnlift {

namespace {
std::string oneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

uint32_t percentOf(const RouterRecord& record) {
  if (record.totalSize == 0) return 0;
  uint64_t percent = static_cast<uint64_t>(record.progress) * 100 / record.totalSize;
  return static_cast<uint32_t>(std::min<uint64_t>(percent, 100));
}
}  // namespace

HeadlessInstaller::HeadlessInstaller(InstallServer& server, const Clock& clock, HeadlessOptions options,
                                     packages::PackageSets& sets, RememberedChoices& remembered, std::ostream& out,
                                     std::ostream& err)
    : server_(server),
      clock_(clock),
      options_(std::move(options)),
      sets_(sets),
      remembered_(remembered),
      out_(out),
      err_(err) {}

void HeadlessInstaller::showMessage(const std::string& text, const std::string& title, bool) {
  refusal_ = oneLine(text);
  logLine() << "message (" << title << "): " << refusal_;
}

bool HeadlessInstaller::askYesNo(const std::string& text) {
  // The options are what the user asked for: go ahead, and say what it means.
  err_ << "tarnlift: warning: " << text << " yes" << std::endl;
  return true;
}

void HeadlessInstaller::tick() {
  int64_t now = static_cast<int64_t>(clock_.nowMicros());
  RouterRecord record;
  while (server_.discovered().pop(record)) {
    remembered_.applyTo(record);
    if (!table_.addRouter(record, now)) continue;
    RouterRow* row = table_.find(record.mac);
    logLine() << "router found: " << row->labelCell << " " << row->macCell << " " << row->architectureCell;
    if (options_.macs.empty() || options_.macs.count(record.mac) != 0) install(*row);
    redraw();
  }
  table_.expire(now);

  std::vector<MacAddress> gone;
  std::vector<MacAddress> busy;
  for (const auto& [mac, row] : table_.rows()) {
    if (row.record.status == kStatusInstalling || row.record.status == kStatusWaitingReboot) busy.push_back(mac);
  }
  bool changed = false;
  for (const MacAddress& mac : busy) {
    RouterRow* row = table_.find(mac);
    SessionStatus s = server_.status(mac);
    if (s.status == kStatusNone) {
      // The router started over (it announced again): a new row will come.
      table_.remove(mac);
      changed = true;
      continue;
    }
    if (s.status != row->record.status || s.progress != row->record.progress ||
        s.statusText != row->record.statusText) {
      bool textChanged = s.statusText != row->record.statusText || s.status != row->record.status;
      table_.setStatus(mac, s.status, s.total != 0 ? s.total : row->record.totalSize, s.progress, s.statusText);
      bool final = s.status == kStatusDone || s.status == kStatusFailed;
      if (textChanged && !final && !options_.liveProgress) progress(*row);
      changed = true;
    }
    if (s.status == kStatusWaitingReboot && actedOn_.insert(mac).second) {
      if (options_.after == AfterInstall::Reboot) server_.reboot(mac);
      if (options_.after == AfterInstall::Shutdown) server_.shutdown(mac);
    }
    if (s.status == kStatusDone || s.status == kStatusFailed) {
      finish(row->record, s.status == kStatusDone, s.statusText);
    }
  }
  if (changed) redraw();
}

void HeadlessInstaller::install(RouterRow& row) {
  RouterRecord& record = row.record;
  packages::PackageChoice choice;
  refusal_.clear();
  if (!options_.setName.empty()) {
    if (!sets_.chooseSet(choice, options_.setName)) {
      showMessage("no package set named " + options_.setName, "Error", true);
      finish(record, false, refusal_);
      return;
    }
    catalogue_.setFolder(choice.folder, record.architecture);
    catalogue_.applySelection(choice.files);
  } else {
    choice.folder = options_.packageDir;
    catalogue_.setFolder(choice.folder, record.architecture);
    catalogue_.applySelection(choice.files);
    for (const std::string& name : options_.select) {
      int index = catalogue_.findByFileName(name);
      if (index < 0) {
        err_ << "tarnlift: " << name << " is not listed for " << architectureText(record.architecture) << std::endl;
        continue;
      }
      size_t i = static_cast<size_t>(index);
      if (catalogue_.canToggle(i) && !catalogue_.record(i).selected) catalogue_.toggle(i, choice.files);
    }
  }
  actedOn_.erase(record.mac);
  InstallContext context{catalogue_,  choice, sets_,
                         remembered_, *this,  [this](const RouterRecord& request) { server_.start(request, true); }};
  InstallOutcome outcome = runInstallCommand(&record, options_.install, context);
  if (outcome != InstallOutcome::Started) {
    finish(record, false, refusal_);
    return;
  }
  SessionStatus s = server_.status(record.mac);
  table_.setStatus(record.mac, s.status, record.totalSize, s.progress, s.statusText);
  if (!options_.liveProgress) progress(row);
  if (s.status == kStatusFailed) finish(row.record, false, s.statusText);
}

void HeadlessInstaller::finish(const RouterRecord& record, bool success, const std::string& text) {
  if (success) {
    ++succeeded_;
  } else {
    ++failed_;
  }
  if (options_.liveProgress && drawnLines_ > 0) {
    out_ << "\x1b[" << drawnLines_ << "F\x1b[J";
    drawnLines_ = 0;
  }
  out_ << macText(record.mac) << '\t' << text << std::endl;
}

void HeadlessInstaller::progress(const RouterRow& row) {
  const RouterRecord& r = row.record;
  out_ << macText(r.mac) << '\t' << row.labelCell << '\t' << statusRowText(r.status) << '\t' << r.statusText << '\t'
       << percentOf(r) << "%\t" << r.progress << std::endl;
}

void HeadlessInstaller::redraw() {
  if (!options_.liveProgress) return;
  if (drawnLines_ > 0) out_ << "\x1b[" << drawnLines_ << "F\x1b[J";
  drawnLines_ = 0;
  for (const auto& [mac, row] : table_.rows()) {
    const RouterRecord& r = row.record;
    if (r.status == kStatusDone || r.status == kStatusFailed) continue;
    out_ << row.labelCell << "  " << row.macCell << "  " << statusRowText(r.status) << ": " << r.statusText << "  "
         << percentOf(r) << "%  " << r.progress << " bytes\n";
    ++drawnLines_;
  }
  out_.flush();
}

}  // namespace tarnlift
