// The inventory: what each router of a fleet gets, keyed by MAC. One
// section per router, `[4C:5E:0C:01:02:03]`, then `key = value` lines (see
// docs/fleet.md). A value given here wins over the command line's, which
// stays the default for everything a section leaves out. The whole file is
// checked before anything is used: one bad line refuses the file, with the
// file and line named, so a run never starts half-configured.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "install/install_datagram.h"
#include "install/desk.h"
#include "install/install_choices.h"
#include "packages/package_catalogue.h"

namespace tarnlift::install {

struct InventoryEntry {
  MacAddress mac{};
  int line = 0;  // where the section starts
  std::optional<std::string> label;
  // address, gateway, script and mode-script (paths resolved against the
  // file's folder), keep-config, default-config, keep-branding
  GivenChoices choices;
  std::optional<std::string> setName;
  std::optional<std::vector<std::string>> select;  // file names to tick
  std::optional<AfterInstall> after;
};

class Inventory {
 public:
  // Whether a package set of this name exists; unset: any name is accepted.
  using SetCheck = std::function<bool(const std::string&)>;

  // Reads and checks `path`. On failure returns false with `error` as
  // "FILE:LINE: what is wrong" and leaves the inventory empty.
  bool load(const std::string& path, const SetCheck& setExists, std::string& error);
  // The same for text already read; `name` is the file's name for messages
  // and `folder` where relative script paths are found ("" for as given).
  bool parse(const std::string& text, const std::string& name, const std::string& folder,
             const SetCheck& setExists, std::string& error);

  const InventoryEntry* find(const MacAddress& mac) const;
  bool contains(const MacAddress& mac) const { return find(mac) != nullptr; }
  size_t size() const { return entries_.size(); }
  const std::map<MacAddress, InventoryEntry>& entries() const { return entries_; }

 private:
  std::map<MacAddress, InventoryEntry> entries_;
};

// Lays a router's section over the values it would get without one (the
// command line's in serve, the window's own in the window): every key the
// section gives replaces its value. `set` and `select` replace the choice
// of packages as a whole: a section's `select` empties setName, its `set`
// empties select. One rule for both front ends.
void applyInventoryEntry(const InventoryEntry& entry, InstallChoices& choices, std::string& setName,
                         std::vector<std::string>& select);

// Ticks the named package files in `catalogue` (already showing the
// router's folder and architecture) into `files` as ticking their boxes
// would, with what they need. Returns the names the catalogue does not list.
std::vector<std::string> tickFiles(packages::PackageCatalogue& catalogue, const std::vector<std::string>& names,
                                   std::vector<std::string>& files);

}  // namespace tarnlift::install
