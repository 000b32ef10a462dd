// Named package sets: a saved choice of a package folder and package files,
// given to router after router. Kept in memory as a map from set name to
// strings (the folder first, then the file names in selection order) and
// persisted under the settings key, sub-key "Package Sets", one multi-string
// value per set. The set "Previous Install" holds the last installed choice.
//
// The combo box, the "Save set" dialog and message boxes sit behind
// PackageSetPrompts, so that the Win32 window and tests drive the same code.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace tarnlift::app {
class Registry;
}

namespace tarnlift::packages {

class PackageCatalogue;

inline constexpr const char* kPackageSetsKey = "Package Sets";
inline constexpr const char* kPreviousInstallSet = "Previous Install";
inline constexpr const char* kDefaultSetName = "Router x";
inline constexpr const char* kEmptySetMessage = "Cannot create empty package set";
inline constexpr const char* kDuplicateSetMessage = "Package set with this name already exists";

// What a router (or local drive) carries: the set it came from (empty for
// none), its package folder and its chosen files in selection order.
struct PackageChoice {
  std::string setName;
  std::string folder;
  std::vector<std::string> files;
};

// The user's side of saving a set.
class PackageSetPrompts {
 public:
  virtual ~PackageSetPrompts() = default;
  // A message box titled "Error".
  virtual void showError(const std::string& text) = 0;
  // The "Save set" dialog ("Save package set as:"), its edit box starting
  // with name. True with the typed name on OK; false on Cancel or close.
  virtual bool askSetName(std::string& name) = 0;
};

class PackageSets {
 public:
  using SetMap = std::map<std::string, std::vector<std::string>>;

  // Reads every multi-string value of "Package Sets" under settingsKey (the
  // opened settings key); values of other types, and values that read back
  // empty, are skipped. Replaces the map.
  void loadSets(app::Registry& settingsKey);
  // Writes every set of the map as a multi-string value.
  void saveSets(app::Registry& settingsKey);

  // The user picked setName in the combo box. A known set moves the choice
  // to the set's folder and files and names the set; an unknown name only
  // moves the folder to the process's current directory. Returns whether the
  // set was known (the front end then shows the choice with applySelection).
  // The set a router's choice came from is the choice's own: there is no
  // set that is current for every router at once.
  bool chooseSet(PackageChoice& choice, const std::string& setName);

  // The "Save set" button: refuses an empty selection, asks for a name until
  // it is new (an empty name asks again), stores folder + files under it and
  // names the choice after it. Returns whether a set was saved.
  bool saveSet(PackageChoice& choice, PackageSetPrompts& prompts);

  // The "Delete set" button with the combo box's entry: removes the set
  // named setName (if any) from the map and from "Package Sets" under
  // settingsKey (nullptr: memory only). Returns whether a set was deleted.
  bool deleteSet(const std::string& setName, app::Registry* settingsKey);

  // One package of the choice changed by hand: adds (if missing) or removes
  // the row's file; the choice no longer comes from a set.
  void editSelection(PackageChoice& choice, const PackageCatalogue& catalogue, size_t index, bool add);

  // "Select all": toggles every row in state 2 in row order. "Select none":
  // every row in state 1. Nothing without a router (choice == nullptr).
  // Return the number of selected packages, for "Selected %d package(s)".
  static size_t selectAll(PackageCatalogue& catalogue, PackageChoice* choice);
  static size_t selectNone(PackageCatalogue& catalogue, PackageChoice* choice);

  // Remembers the choice of an installation as "Previous Install".
  void rememberPreviousInstall(const PackageChoice& choice);
  // Keeps choice's folder and files as the set name (replacing a set of
  // that name), without any question.
  void storeSet(const std::string& name, const PackageChoice& choice);
  // Gives a newly found router or drive the last installed choice.
  bool applyPreviousInstall(PackageChoice& choice) { return chooseSet(choice, kPreviousInstallSet); }

  // The combo box: set names in sorted order.
  std::vector<std::string> names() const;
  // The entry the combo box shows for a choice: its set while the set still
  // exists, else none (empty). "Save set" is enabled when it shows none,
  // "Delete set" when it shows one.
  std::string shownSet(const PackageChoice& choice) const { return contains(choice.setName) ? choice.setName : ""; }
  bool saveEnabled(const PackageChoice& choice) const { return shownSet(choice).empty(); }
  bool deleteEnabled(const PackageChoice& choice) const { return !shownSet(choice).empty(); }

  const SetMap& sets() const { return sets_; }
  bool contains(const std::string& name) const { return sets_.count(name) != 0; }

 private:
  SetMap sets_;
};

}  // namespace tarnlift::packages
