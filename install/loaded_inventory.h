// An inventory file loaded while a front end runs (the window's "Load
// inventory…") and how a router row takes its section. The file and its
// rules are serve's (install/inventory.h, docs/fleet.md); a section is laid
// over what the row has otherwise ("Previous Install" and the remembered
// defaults) with the same merge serve uses, so both front ends give a
// router the same values.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "install/desk.h"
#include "install/inventory.h"
#include "install/router_record.h"
#include "packages/package_catalogue.h"
#include "packages/package_sets.h"

namespace tarnlift::install {

class LoadedInventory {
 public:
  // Reads and checks the whole file. A bad file leaves the inventory as it
  // was and gives "FILE:LINE: what is wrong".
  bool load(const std::string& path, const packages::PackageSets& sets, std::string& error);

  bool loaded() const { return !path_.empty(); }
  const std::string& path() const { return path_; }
  size_t size() const { return inventory_.size(); }
  const InventoryEntry* find(const MacAddress& mac) const { return inventory_.find(mac); }

  // Fills a router row that can still change ("Ready") with its section:
  // address, netmask, gateway, scripts, the three flags, and the packages
  // (`set`: the saved set; `select`: the named files ticked in packageDir,
  // the folder the front end shows, with what they need). False when the row
  // has no section or is busy. Names `select` lists that the folder lacks
  // for the router's architecture go to notListed.
  bool applyTo(RouterRecord& record, const std::string& packageDir, packages::PackageSets& sets,
               std::vector<std::string>& notListed);

  // The section's `after`, when it gives one.
  std::optional<AfterInstall> afterFor(const MacAddress& mac) const;

 private:
  Inventory inventory_;
  std::string path_;
  // A catalogue of its own (no view) to resolve `select`: the front end's
  // own shows its selected router and must not move for another one.
  packages::PackageCatalogue resolver_;
};

}  // namespace tarnlift::install
