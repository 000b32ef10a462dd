#include "packages/package_catalogue.h"

#include <algorithm>

#include "app/log.h"
#include "packages/package_file.h"
#include "packages/package_folder.h"

namespace tarnlift::packages {
namespace {

constexpr const char* kNpk = ".npk";
constexpr const char* kDpk = ".dpk";

bool contains(const std::vector<uint32_t>& ids, uint32_t id) {
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

}  // namespace

uint32_t PackageCatalogue::internName(const std::string& name) {
  const auto [it, added] = nameIndex_.try_emplace(name, static_cast<uint32_t>(nameIndex_.size()));
  if (added) providersById_.emplace_back();
  return it->second;
}

void PackageCatalogue::setFolder(const std::string& folder, uint32_t architectureCode) {
  folder_ = folder;
  architectureCode_ = architectureCode;
  reload();
}

bool PackageCatalogue::browseFolder(FolderBrowser& browser) {
  FolderBrowser::Request request;
  request.title = "Select package directory:";
  request.startFolder = folder_;
  request.onInit = [this] { app::logLine() << "init path: " << folder_; };
  request.statusFor = [](const std::string& folder) { return folderStatusText(folder); };
  std::string chosen;
  if (!browser.browse(request, chosen)) return false;
  folder_ = chosen;
  reload();
  return true;
}

void PackageCatalogue::reload() {
  records_.clear();
  rows_.clear();
  nameIndex_.clear();
  providersById_.clear();
  providedIds_.clear();
  nameIds_.clear();
  constraintIds_.clear();
  dependencyIds_.clear();
  if (view_) view_->rowsCleared();
  app::logLine() << "Looking for packages in " << folder_;

  std::vector<std::string> names = listFolderFiles(folder_, kNpk);
  std::vector<std::string> dpk = listFolderFiles(folder_, kDpk);
  names.insert(names.end(), dpk.begin(), dpk.end());
  if (names.empty()) {
    app::logLine() << "No packages in this directory";
    return;
  }
  // Ascending by character code: this order decides every tie-break of the
  // selection logic.
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    app::logLine() << "Loading " << name;
    addPackage(name);
  }

  // Exclusions are made mutual and missing dependencies found record by
  // record, so an exclusion added while visiting a later record does not
  // change the missing list already worked out for an earlier one.
  for (size_t i = 0; i < records_.size(); ++i) {
    for (size_t j = 0; j < records_.size(); ++j) {
      if (j == i) continue;
      const PackageRecord& ri = records_[i];
      const std::vector<PackageDependency>& cj = records_[j].constraints;
      bool hit = false;
      for (size_t k = 0; k < cj.size() && !hit; ++k) {
        const uint32_t id = constraintIds_[j][k];
        hit = (nameIds_[i] == id || contains(providedIds_[i], id)) && cj[k].accepts(ri.version);
      }
      if (!hit) continue;
      addConstraint(i, {records_[j].name, records_[j].version, records_[j].version});
      addConstraint(j, {records_[i].name, records_[i].version, records_[i].version});
    }

    PackageRecord& record = records_[i];
    std::string missing;
    std::vector<int8_t> memo;
    for (const PackageDependency& d : record.dependencies) {
      bool satisfied = false;
      for (size_t c : candidates(d)) {
        if (!isExcludedMemo(i, c, memo)) {
          satisfied = true;
          break;
        }
      }
      if (satisfied) continue;
      if (!missing.empty()) missing += ", ";
      missing += d.name;
    }
    record.valid = missing.empty();
    if (!record.valid) {
      rows_[i].description = "Missing: " + missing;
      rows_[i].state = kRowMissing;
      notifyChanged(i);
    }
  }
  app::logLine() << "Loaded " << records_.size() << " package(s)";
}

bool PackageCatalogue::addPackage(const std::string& fileName) {
  std::unique_ptr<PackageFileSource> file = openPackageFile(joinFolderPath(folder_, fileName));
  if (!file) return false;
  PackageFileContents contents;
  contents.record.fileName = fileName;
  if (!readPackageContents(*file, fileName, architectureCode_, contents)) return false;
  const int64_t length = file->length();
  contents.record.fileSize = length < 0 ? 0 : static_cast<uint32_t>(length);

  const size_t index = records_.size();
  PackageRecord& record = records_.emplace_back(std::move(contents.record));
  nameIds_.push_back(internName(record.name));
  std::vector<uint32_t>& provided = providedIds_.emplace_back();
  for (const std::string& name : record.providedNames) {
    const uint32_t id = internName(name);
    provided.push_back(id);
    std::vector<size_t>& providers = providersById_[id];
    if (providers.empty() || providers.back() != index) providers.push_back(index);
  }
  std::vector<uint32_t>& constraintIds = constraintIds_.emplace_back();
  for (const PackageDependency& e : record.constraints) constraintIds.push_back(internName(e.name));
  std::vector<uint32_t>& dependencyIds = dependencyIds_.emplace_back();
  for (const PackageDependency& d : record.dependencies) dependencyIds.push_back(internName(d.name));

  PackageRow& row = rows_.emplace_back();
  row.name = shownName(record);
  row.version = formatVersion(record.version);
  row.architecture = shownArchitecture(record.architecture);
  row.description = shownDescription(contents.description, fileName);
  row.state = kRowNoBox;
  if (view_) view_->rowAdded(index, row);
  return true;
}

void PackageCatalogue::addConstraint(size_t index, const PackageDependency& entry) {
  std::vector<PackageDependency>& constraints = records_[index].constraints;
  if (std::find(constraints.begin(), constraints.end(), entry) != constraints.end()) return;
  app::logLine() << "add con for " << records_[index].name << ": " << entry.name;
  constraints.push_back(entry);
  constraintIds_[index].push_back(internName(entry.name));
}

int PackageCatalogue::countPackageFiles(const std::string& folder) {
  const size_t npk = listFolderFiles(folder, kNpk).size();
  if (npk == 0) return 0;
  return static_cast<int>(npk + listFolderFiles(folder, kDpk).size());
}

std::string PackageCatalogue::folderStatusText(const std::string& folder) {
  return "There are " + std::to_string(countPackageFiles(folder)) + " package(s) in this directory";
}

std::vector<size_t> PackageCatalogue::candidates(const PackageDependency& d) const {
  std::vector<size_t> result;
  const auto it = nameIndex_.find(d.name);
  if (it == nameIndex_.end()) return result;
  for (size_t c : providersById_[it->second]) {
    if (d.accepts(records_[c].version)) result.push_back(c);
  }
  return result;
}

bool PackageCatalogue::isExcluded(size_t r, size_t c) const {
  const std::vector<PackageDependency>& constraints = records_[r].constraints;
  const uint32_t cName = nameIds_[c];
  const PackageVersion cVersion = records_[c].version;
  for (size_t k = 0; k < constraints.size(); ++k) {
    if (constraintIds_[r][k] == cName && constraints[k].accepts(cVersion)) return true;
  }
  return false;
}

bool PackageCatalogue::isExcludedMemo(size_t r, size_t c, std::vector<int8_t>& memo) const {
  if (memo.size() != records_.size()) memo.assign(records_.size(), -1);
  if (memo[c] < 0) memo[c] = isExcluded(r, c) ? 1 : 0;
  return memo[c] != 0;
}

bool PackageCatalogue::canToggle(size_t index) const {
  if (index >= rows_.size()) return false;
  const int state = rows_[index].state;
  return state == kRowChecked || state == kRowUnchecked;
}

bool PackageCatalogue::toggleFile(const std::string& fileName, std::vector<std::string>& selection) {
  const int index = findByFileName(fileName);
  if (index < 0 || !canToggle(static_cast<size_t>(index))) return false;
  toggle(static_cast<size_t>(index), selection);
  return true;
}

void PackageCatalogue::toggle(size_t index, std::vector<std::string>& selection) {
  if (index >= records_.size()) return;
  app::logLine() << "change state " << index;
  select(index, !records_[index].selected);
  selection.clear();
  for (const PackageRecord& record : records_) {
    if (record.selected) selection.push_back(record.fileName);
  }
}

void PackageCatalogue::select(size_t index, bool on) {
  if (index >= records_.size()) return;
  PackageRecord& record = records_[index];
  if (record.selected == on) return;
  record.selected = on;
  app::logLine() << "select " << record.name << " " << (on ? 1 : 0);

  if (!on) {
    setRowState(index, kRowUnchecked);
    for (size_t j = 0; j < records_.size(); ++j) {
      if (!records_[j].selected) continue;
      app::logLine() << "try desel " << records_[j].name;
      // The first of j's dependencies that the cleared record satisfied.
      const PackageDependency* needed = nullptr;
      for (const PackageDependency& d : records_[j].dependencies) {
        if (records_[index].provides(d.name) && d.accepts(records_[index].version)) {
          needed = &d;
          break;
        }
      }
      if (needed == nullptr) continue;
      bool stillProvided = false;
      for (size_t c : candidates(*needed)) {
        if (records_[c].selected && !isExcluded(j, c)) {
          stillProvided = true;
          break;
        }
      }
      if (!stillProvided) select(j, false);
    }
    return;
  }

  setRowState(index, kRowChecked);
  // Each unmet dependency pulls in its provider latest in sorted order.
  // (The memo stays valid: selecting changes no constraint list.)
  std::vector<int8_t> memo;
  for (size_t k = 0; k < records_[index].dependencies.size(); ++k) {
    const PackageDependency d = records_[index].dependencies[k];
    bool satisfied = false;
    size_t last = SIZE_MAX;
    for (size_t c : candidates(d)) {
      if (isExcludedMemo(index, c, memo)) continue;
      if (records_[c].selected) {
        satisfied = true;
        break;
      }
      last = c;
    }
    if (!satisfied && last != SIZE_MAX) select(last, true);
  }
  // Then everything this record excludes goes: its own header's entry
  // clears other files of the same package, a group clears its members.
  const std::vector<PackageDependency> constraints = records_[index].constraints;
  for (const PackageDependency& e : constraints) {
    for (size_t c : candidates(e)) {
      if (c != index) select(c, false);
    }
  }
}

void PackageCatalogue::setRowState(size_t index, int state) {
  if (index >= rows_.size()) return;
  rows_[index].state = state;
  records_[index].selected = state == kRowChecked || state == kRowCheckedBusy;
  notifyChanged(index);
}

void PackageCatalogue::notifyChanged(size_t index) {
  if (view_) view_->rowChanged(index, rows_[index]);
}

void PackageCatalogue::applySelection(const std::vector<std::string>& selection) {
  for (size_t i = 0; i < records_.size(); ++i) {
    const bool chosen = std::find(selection.begin(), selection.end(), records_[i].fileName) != selection.end();
    if (chosen) {
      setRowState(i, kRowChecked);
    } else {
      setRowState(i, records_[i].valid ? kRowUnchecked : kRowMissing);
    }
  }
}

void PackageCatalogue::applyBusySelection(const std::vector<std::string>& selection) {
  for (size_t i = 0; i < records_.size(); ++i) {
    const bool chosen = std::find(selection.begin(), selection.end(), records_[i].fileName) != selection.end();
    if (chosen) {
      setRowState(i, kRowCheckedBusy);
    } else {
      setRowState(i, records_[i].valid ? kRowUncheckedBusy : kRowMissing);
    }
  }
}

void PackageCatalogue::clearSelectionView() {
  for (size_t i = 0; i < records_.size(); ++i) setRowState(i, records_[i].valid ? kRowNoBox : kRowMissing);
}

std::string PackageCatalogue::describeDependencies(size_t index) const {
  if (index >= records_.size()) return "";
  const PackageRecord& record = records_[index];
  std::string list;
  std::vector<int8_t> memo;
  for (const PackageDependency& d : record.dependencies) {
    bool available = false;
    for (size_t c : candidates(d)) {
      if (!isExcludedMemo(index, c, memo)) {
        available = true;
        break;
      }
    }
    if (!available) continue;
    if (!list.empty()) list += ", ";
    if (d.minVersion == d.maxVersion) {
      list += d.name + " (" + formatVersion(d.minVersion) + ")";
    } else {
      list += d.name + " (" + formatVersion(d.minVersion) + " - " +
              (d.maxVersion == kAnyVersion ? std::string("any") : formatVersion(d.maxVersion)) + ")";
    }
  }
  if (list.empty()) list = "nothing";
  return record.name + " depends on " + list;
}

std::vector<std::string> PackageCatalogue::installOrder(const std::vector<std::string>& selection) {
  for (PackageRecord& record : records_) record.visited = false;
  std::vector<std::string> order;
  for (const std::string& fileName : selection) {
    const int index = findByFileName(fileName);
    if (index < 0) {
      app::logLine() << "not in package folder: " << fileName;
      continue;
    }
    visit(static_cast<size_t>(index), order);
  }
  return order;
}

void PackageCatalogue::visit(size_t index, std::vector<std::string>& order) {
  if (records_[index].visited) return;
  records_[index].visited = true;
  for (size_t k = 0; k < records_[index].dependencies.size(); ++k) {
    const PackageDependency& d = records_[index].dependencies[k];
    for (size_t c : candidates(d)) {
      if (records_[c].selected) {
        visit(c, order);
        break;
      }
    }
  }
  order.push_back(records_[index].fileName);
}

int PackageCatalogue::findByFileName(const std::string& fileName) const {
  for (size_t i = 0; i < records_.size(); ++i) {
    if (records_[i].fileName == fileName) return static_cast<int>(i);
  }
  return -1;
}

uint32_t PackageCatalogue::fileSizeOf(const std::string& fileName) const {
  const int index = findByFileName(fileName);
  return index < 0 ? 0 : records_[static_cast<size_t>(index)].fileSize;
}

uint64_t PackageCatalogue::totalSizeOf(const std::vector<std::string>& files) const {
  uint64_t total = 0;
  for (const std::string& file : files) total += fileSizeOf(file);
  return total;
}

std::string PackageCatalogue::filePath(const std::string& fileName) const { return joinFolderPath(folder_, fileName); }

bool PackageCatalogue::isVersionAtLeast(const std::string& fileName, PackageVersion version) const {
  const int index = findByFileName(fileName);
  if (index < 0) return false;
  const PackageRecord& record = records_[static_cast<size_t>(index)];
  if (record.version >= version) return true;
  if (record.name == "system") return false;
  return record.name != "brisvane";
}

size_t PackageCatalogue::selectedCount() const {
  return static_cast<size_t>(
      std::count_if(records_.begin(), records_.end(), [](const PackageRecord& r) { return r.selected; }));
}

}  // namespace tarnlift::packages
