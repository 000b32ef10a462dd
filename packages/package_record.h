// One package file of the package folder, as the rest of the system sees it:
// the list of the main window, the selection logic, the network installation
// (which sends the file named here) and the local-disk installation (which
// copies it).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "packages/version.h"

namespace tarnlift::packages {

// A package name with an inclusive version range.
struct PackageDependency {
  std::string name;
  PackageVersion minVersion = 0;
  PackageVersion maxVersion = kAnyVersion;

  bool accepts(PackageVersion version) const { return minVersion <= version && version <= maxVersion; }
  bool operator==(const PackageDependency&) const = default;
};

struct PackageRecord {
  // The file's name within the package folder (no folder part).
  std::string fileName;
  // From the group header when there is one, else from the package header.
  std::string name;
  PackageVersion version = 0;
  // The file's length in bytes; 0 when it could not be measured.
  uint32_t fileSize = 0;
  // The architecture text exactly as stored; empty when absent.
  std::string architecture;
  // Every package header's name in file order: the member list of a group,
  // the own name of a plain package.
  std::vector<std::string> providedNames;
  // What it needs (files without a group header only).
  std::vector<PackageDependency> dependencies;
  // What it must not be selected together with: one unbounded entry per
  // package header, the file's exclusion parts, and the entries the folder
  // scan adds to make exclusions mutual.
  std::vector<PackageDependency> constraints;
  // All dependencies satisfied (set by the folder scan).
  bool valid = true;
  // The check box (true exactly for row states 1 and 4).
  bool selected = false;
  // Mark of the install-order walk.
  bool visited = false;

  // Whether this record provides name (its own name or one of its members).
  bool provides(const std::string& packageName) const;
};

}  // namespace tarnlift::packages
