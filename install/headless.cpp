#include "install/headless.h"

#include <algorithm>

#include "app/json_writer.h"
#include "app/log.h"
#include "install/after_install.h"
#include "net/address.h"

namespace tarnlift::install {

namespace {
std::string oneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}
}  // namespace

HeadlessInstaller::HeadlessInstaller(InstallServer& server, const app::Clock& clock, HeadlessOptions options,
                                     packages::PackageSets& sets, RememberedChoices& remembered, std::ostream& out,
                                     std::ostream& err)
    : server_(server),
      routers_(server),
      options_(std::move(options)),
      sets_(sets),
      remembered_(remembered),
      out_(out),
      err_(err),
      desk_(routers_, drives_, sets, remembered, clock),
      clock_(clock) {
  desk_.setPackageDir(options_.packageDir);
  // Reboot or shut down only what has confirmed the end of its transfer: a
  // "TERM" sent at once would replace a lost "FILE\n" in the answer to the
  // router's repeat, and the router would never complete.
  desk_.setAfterInstallMoment(AfterInstallMoment::TransferConfirmed);
  if (options_.sendBeacon) desk_.setBeacon(options_.sendBeacon);
}

void HeadlessInstaller::showMessage(const std::string& text, const std::string& title, bool) {
  refusal_ = oneLine(text);
  app::logLine() << "message (" << title << "): " << refusal_;
}

bool HeadlessInstaller::askYesNo(const std::string& text) {
  // The options are what the user asked for: go ahead, and say what it means.
  err_ << "tarnlift: warning: " << text << " yes" << std::endl;
  return true;
}

void HeadlessInstaller::tick() {
  InstallDesk::TickResult result = desk_.tick();
  for (const MacAddress& mac : result.added) {
    RouterRow* row = desk_.table().find(mac);
    app::logLine() << "router found: " << row->labelCell << " " << row->macCell << " " << row->architectureCell;
    if (options_.json) {
      out_ << app::JsonObjectWriter()
                  .text("event", "seen")
                  .text("mac", macText(mac))
                  .text("label", row->record.label)
                  .text("architecture", architectureText(row->record.architecture))
                  .str()
           << std::endl;
    }
    if (options_.hold) continue;
    if (mayInstall(mac)) install(*row);
  }
  bool changed = result.tableChanged;
  for (const DeskNews& news : result.news) {
    if (!news.hadNews) continue;
    RouterRow* row = desk_.table().find(news.mac);
    const SessionStatus& s = news.status;
    // Before anything else: the router's "WTRM" alone changes no status,
    // progress or text.
    if (desk_.afterInstallDue(news)) {
      const InventoryEntry* entry = options_.inventory.find(news.mac);
      std::optional<AfterInstall> forThisRouter;
      if (options_.afterFor) forThisRouter = options_.afterFor(news.mac);
      desk_.actAfterInstallOnce(
          news, chooseAfterInstall(entry ? entry->after : std::nullopt, forThisRouter, options_.after));
    }
    bool statusChanged = s.status != news.previousStatus;
    if (!statusChanged && s.progress == news.previousProgress && s.statusText == news.previousText) continue;
    changed = true;
    bool final = s.status == kStatusDone || s.status == kStatusFailed;
    bool textChanged = statusChanged || s.statusText != news.previousText;
    // A router whose session is gone keeps its row with status 0 until it
    // announces itself again; there is nothing to print for it.
    if (textChanged && !final && s.status != kStatusNone && !options_.liveProgress) progress(*row);
    if (final && statusChanged) finish(row->record, s.status == kStatusDone, s.statusText, s.confirmed);
  }
  if (changed) redraw();
}

bool HeadlessInstaller::mayInstall(const MacAddress& mac) {
  bool named = options_.macs.count(mac) != 0;
  if (options_.onlyKnown) {
    if (named || options_.inventory.contains(mac)) return true;
    if (ignored_.insert(mac).second)
      app::logLine() << "unknown router " << macText(mac) << " left alone (--only-known)";
    return false;
  }
  return options_.macs.empty() || named;
}

void HeadlessInstaller::install(RouterRow& row) {
  RouterRecord& record = row.record;
  packages::PackageChoice choice;
  refusal_.clear();
  // The inventory's values for this router win over the command line's.
  InstallChoices choices = options_.choices;
  std::string setName = options_.setName;
  std::vector<std::string> select = options_.select;
  const InventoryEntry* listed = options_.inventory.find(record.mac);
  if (listed != nullptr) {
    if (listed->label)
      app::logLine() << "router " << macText(record.mac) << " is \"" << *listed->label << "\" in the inventory";
    applyInventoryEntry(*listed, choices, setName, select);
  }
  if (options_.pool && !(listed && listed->choices.gives(GivenChoices::kAddress))) {
    uint32_t address = options_.pool->addressFor(record.mac);
    if (address == 0) {
      finish(record, false, "the address pool is used up");
      return;
    }
    choices.address = net::networkOrder(address);
    choices.netmaskBits = options_.pool->netmaskBits();
    app::logLine() << "router " << macText(record.mac) << " gets " << net::formatHostOrderIpv4(address) << "/"
                   << choices.netmaskBits << " from the address pool";
  }
  if (setName.empty() && select.empty()) {
    // Not what an earlier run or the window remembered ("Previous Install"):
    // the same folder and command line must install the same packages on
    // every run. The folder's default is what "Select all" ticks.
    choice.folder = options_.packageDir;
    catalogue_.setFolder(choice.folder, record.architecture);
    catalogue_.applySelection(choice.files);
    packages::PackageSets::selectAll(catalogue_, &choice);
    app::logLine() << "router " << macText(record.mac) << " gets the package folder's default selection ("
                   << choice.files.size() << " packages)";
  } else if (!setName.empty()) {
    if (!sets_.chooseSet(choice, setName)) {
      showMessage("no package set named " + setName, "Error", true);
      finish(record, false, refusal_);
      return;
    }
    catalogue_.setFolder(choice.folder, record.architecture);
    catalogue_.applySelection(choice.files);
  } else {
    choice.folder = options_.packageDir;
    catalogue_.setFolder(choice.folder, record.architecture);
    catalogue_.applySelection(choice.files);
    for (const std::string& name : tickFiles(catalogue_, select, choice.files)) {
      err_ << "tarnlift: " << name << " is not listed for " << architectureText(record.architecture) << std::endl;
    }
  }
  // The address given, as the results name it.
  std::string given;
  if (choices.address != 0) {
    given = dottedAddress(choices.address);
    if (choices.netmaskBits != 0) given += '/' + std::to_string(choices.netmaskBits);
  }
  started_[record.mac] = {clock_.nowMicros(), given, {}, {}};
  InstallContext context{catalogue_,  choice, sets_,
                         remembered_, *this,  [this](const RouterRecord& request) { server_.start(request, true); }};
  InstallOutcome outcome = runInstallCommand(&record, choices, context);
  if (outcome != InstallOutcome::Started) {
    finish(record, false, refusal_);
    return;
  }
  // The versions come from the catalogue now: it shows another router's
  // folder by the time this one ends.
  Started& started = started_[record.mac];
  started.files = record.files;
  for (const std::string& file : record.files) {
    int index = catalogue_.findByFileName(file);
    started.versions.push_back(
        index < 0 ? std::string() : packages::formatVersion(catalogue_.record(static_cast<size_t>(index)).version));
  }
  desk_.showFirstStatus(record.mac);
  if (!options_.liveProgress) progress(row);
  if (row.record.status == kStatusFailed) finish(row.record, false, row.record.statusText);
}

void HeadlessInstaller::finish(const RouterRecord& record, bool success, const std::string& text, bool confirmed) {
  if (success) {
    ++succeeded_;
  } else {
    ++failed_;
  }
  if (options_.liveProgress && drawnLines_ > 0) {
    out_ << "\x1b[" << drawnLines_ << "F\x1b[J";
    drawnLines_ = 0;
  }
  if (!options_.json) out_ << macText(record.mac) << '\t' << text << std::endl;
  if (options_.onEnded || options_.json) {
    RouterResult result;
    result.time = utcTimestamp();
    result.mac = macText(record.mac);
    result.label = record.label;
    if (const InventoryEntry* e = options_.inventory.find(record.mac); e && e->label) result.label = *e->label;
    result.architecture = architectureText(record.architecture);
    // A router refused before anything was sent lists no files.
    if (auto it = started_.find(record.mac); it != started_.end()) {
      result.seconds = static_cast<double>(clock_.nowMicros() - it->second.micros) / 1e6;
      result.address = it->second.address;
      result.files = it->second.files;
      result.versions = it->second.versions;
      started_.erase(it);
    }
    result.bytes = record.totalSize;
    result.success = success;
    result.confirmed = confirmed;
    result.text = text;
    if (options_.json) out_ << resultJsonLine(result, app::JsonObjectWriter().text("event", "ended")) << std::endl;
    if (options_.onEnded) options_.onEnded(result);
  }
}

void HeadlessInstaller::progress(const RouterRow& row) {
  const RouterRecord& r = row.record;
  if (options_.json) {
    out_ << app::JsonObjectWriter()
                .text("event", "progress")
                .text("mac", macText(r.mac))
                .text("status", statusRowText(r.status))
                .text("text", r.statusText)
                .number("percent", r.percentDone())
                .number("bytes", r.progress)
                .str()
         << std::endl;
    return;
  }
  out_ << macText(r.mac) << '\t' << row.labelCell << '\t' << statusRowText(r.status) << '\t' << r.statusText << '\t'
       << r.percentDone() << "%\t" << r.progress << std::endl;
}

void HeadlessInstaller::redraw() {
  if (!options_.liveProgress) return;
  if (drawnLines_ > 0) out_ << "\x1b[" << drawnLines_ << "F\x1b[J";
  drawnLines_ = 0;
  for (const auto& [mac, row] : desk_.table().rows()) {
    const RouterRecord& r = row.record;
    if (r.status == kStatusDone || r.status == kStatusFailed) continue;
    out_ << row.labelCell << "  " << row.macCell << "  " << statusRowText(r.status) << ": " << r.statusText << "  "
         << r.percentDone() << "%  " << r.progress << " bytes\n";
    ++drawnLines_;
  }
  out_.flush();
}

void HeadlessInstaller::rereadPackages() { catalogue_.setFolder(options_.packageDir, 0); }

}  // namespace tarnlift::install
