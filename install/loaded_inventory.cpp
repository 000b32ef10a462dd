#include "install/loaded_inventory.h"

namespace tarnlift::install {

bool LoadedInventory::load(const std::string& path, const packages::PackageSets& sets, std::string& error) {
  Inventory read;
  if (!read.load(path, [&sets](const std::string& name) { return sets.contains(name); }, error)) return false;
  inventory_ = std::move(read);
  path_ = path;
  return true;
}

bool LoadedInventory::applyTo(RouterRecord& record, const std::string& packageDir, packages::PackageSets& sets,
                              std::vector<std::string>& notListed) {
  const InventoryEntry* entry = inventory_.find(record.mac);
  if (entry == nullptr || record.kind != kKindRouter || record.status != kStatusReady) return false;
  // The section laid over the row's choices as the option controls show them.
  InstallChoices choices = asTheControlsReadThem(record);
  std::string setName;
  std::vector<std::string> select;
  applyInventoryEntry(*entry, choices, setName, select);
  // As with the remembered choice: a router without a default
  // configuration never has the option on.
  choices.defaultConfig = choices.defaultConfig && hasDefaultConfiguration(record);
  static_cast<InstallChoices&>(record) = choices;

  if (!setName.empty()) {
    packages::PackageChoice choice{record.setName, record.packageDir, record.files};
    // The file was checked against the saved sets; one deleted since keeps
    // the row's own choice.
    if (sets.chooseSet(choice, setName)) {
      record.setName = choice.setName;
      record.packageDir = choice.folder;
      record.files = choice.files;
    }
  } else if (!select.empty()) {
    std::vector<std::string> files;
    resolver_.setFolder(packageDir, record.architecture);
    resolver_.applySelection(files);
    notListed = tickFiles(resolver_, select, files);
    record.setName.clear();
    record.packageDir = packageDir;
    record.files = files;
  }
  return true;
}

std::optional<AfterInstall> LoadedInventory::afterFor(const MacAddress& mac) const {
  const InventoryEntry* entry = inventory_.find(mac);
  if (entry == nullptr) return std::nullopt;
  return entry->after;
}

}  // namespace tarnlift::install
