#include "packages/package_sets.h"

#include <algorithm>
#include <filesystem>
#include <list>
#include <system_error>

#include "app/log.h"
#include "app/registry.h"
#include "packages/package_catalogue.h"

namespace tarnlift::packages {
namespace {

std::string currentDirectory() {
  std::error_code error;
  const std::filesystem::path path = std::filesystem::current_path(error);
  return error ? std::string() : path.string();
}

}  // namespace

void PackageSets::loadSets(app::Registry& settingsKey) {
  sets_.clear();
  app::Registry key;
  key.openSubKey(settingsKey, kPackageSetsKey);
  app::ValueType type = app::ValueType::None;
  std::string name;
  for (uint32_t index = 0; key.enumValue(index, type, name); ++index) {
    if (type != app::ValueType::MultiString) continue;
    std::list<std::string> strings;
    key.readMultiString(name, strings);
    // A set without even its folder (or too large to be read whole) cannot
    // be chosen; it is left out rather than shown broken.
    if (strings.empty()) continue;
    sets_[name] = std::vector<std::string>(strings.begin(), strings.end());
  }
  key.close();
}

void PackageSets::saveSets(app::Registry& settingsKey) {
  app::Registry key;
  key.openSubKey(settingsKey, kPackageSetsKey);
  for (const auto& [name, strings] : sets_)
    key.writeMultiString(name, std::list<std::string>(strings.begin(), strings.end()));
  key.close();
}

bool PackageSets::chooseSet(PackageChoice& choice, const std::string& setName) {
  const auto it = sets_.find(setName);
  if (it == sets_.end()) {
    choice.folder = currentDirectory();
    return false;
  }
  choice.setName = setName;
  choice.folder = it->second.front();
  choice.files.assign(it->second.begin() + 1, it->second.end());
  return true;
}

bool PackageSets::saveSet(PackageChoice& choice, PackageSetPrompts& prompts) {
  if (choice.files.empty()) {
    prompts.showError(kEmptySetMessage);
    return false;
  }
  std::string name = kDefaultSetName;
  for (;;) {
    if (!prompts.askSetName(name)) return false;
    if (name.empty()) continue;
    if (sets_.count(name) != 0) {
      prompts.showError(kDuplicateSetMessage);
      continue;
    }
    break;
  }
  std::vector<std::string> strings;
  strings.reserve(choice.files.size() + 1);
  strings.push_back(choice.folder);
  strings.insert(strings.end(), choice.files.begin(), choice.files.end());
  sets_[name] = std::move(strings);
  choice.setName = name;
  return true;
}

bool PackageSets::deleteSet(const std::string& setName, app::Registry* settingsKey) {
  if (setName.empty() || sets_.count(setName) == 0) return false;
  const std::string name = setName;
  sets_.erase(name);
  if (settingsKey != nullptr) {
    // A failure here is not reported: the set is already gone from the list.
    app::Registry key;
    key.openSubKey(*settingsKey, kPackageSetsKey);
    key.deleteValue(name);
  }
  return true;
}

void PackageSets::editSelection(PackageChoice& choice, const PackageCatalogue& catalogue, size_t index, bool add) {
  if (index >= catalogue.size()) return;
  const std::string& fileName = catalogue.record(index).fileName;
  const auto it = std::find(choice.files.begin(), choice.files.end(), fileName);
  if (add) {
    if (it == choice.files.end()) choice.files.push_back(fileName);
  } else if (it != choice.files.end()) {
    choice.files.erase(it);
  }
  choice.setName.clear();
}

size_t PackageSets::selectAll(PackageCatalogue& catalogue, PackageChoice* choice) {
  if (choice == nullptr) return 0;
  for (size_t i = 0; i < catalogue.size(); ++i) {
    if (catalogue.rowState(i) == kRowUnchecked) catalogue.toggle(i, choice->files);
  }
  return choice->files.size();
}

size_t PackageSets::selectNone(PackageCatalogue& catalogue, PackageChoice* choice) {
  if (choice == nullptr) return 0;
  for (size_t i = 0; i < catalogue.size(); ++i) {
    if (catalogue.rowState(i) == kRowChecked) catalogue.toggle(i, choice->files);
  }
  return choice->files.size();
}

void PackageSets::rememberPreviousInstall(const PackageChoice& choice) { storeSet(kPreviousInstallSet, choice); }

void PackageSets::storeSet(const std::string& name, const PackageChoice& choice) {
  std::vector<std::string> strings;
  strings.push_back(choice.folder);
  strings.insert(strings.end(), choice.files.begin(), choice.files.end());
  sets_[name] = std::move(strings);
}

std::vector<std::string> PackageSets::names() const {
  std::vector<std::string> result;
  result.reserve(sets_.size());
  for (const auto& entry : sets_) result.push_back(entry.first);
  return result;
}

}  // namespace tarnlift::packages
