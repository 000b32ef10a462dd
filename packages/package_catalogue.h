// The package folder with dependency-aware selection.
//
// The catalogue scans one folder for one architecture code, keeps a
// PackageRecord and a list row per accepted file (row index = record index,
// records in ascending file-name order), works out missing dependencies and
// keeps the check boxes consistent: ticking pulls in what a package needs
// and pushes out what it excludes, clearing drops what can no longer run.
// It hands the installers the chosen files in an order where every package
// comes after the packages it depends on.
//
// The rows (texts and check-box states 0..5) live here, in the model; a
// window or any other front end watches them through PackageListView.
//
// Typical use by a front end (the GUI, `tarnlift packages`, `tarnlift serve`):
//
//   PackageCatalogue catalogue;
//   catalogue.setFolder(dir, router.architectureCode);   // scan
//   catalogue.applySelection(router.files);              // show its boxes
//   catalogue.toggle(catalogue.findByFileName("x.npk"), router.files);
//   for (auto& f : catalogue.installOrder(router.files))
//     send(catalogue.filePath(f), catalogue.fileSizeOf(f));
//
// Not thread-safe: one thread (the GUI thread) owns it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "packages/package_record.h"

namespace tarnlift::packages {

// Check-box states of a row.
enum RowState : int {
  kRowNoBox = 0,  // no router is selected
  kRowChecked = 1,
  kRowUnchecked = 2,
  kRowMissing = 3,        // missing dependencies: cannot be ticked
  kRowCheckedBusy = 4,    // router busy: cannot be changed
  kRowUncheckedBusy = 5,  // router busy: cannot be changed
};

// One row of the package list: the four columns and the state.
struct PackageRow {
  std::string name;          // "Name": the shown name
  std::string version;       // "Version": formatted
  std::string architecture;  // "Architecture": the shown architecture
  std::string description;   // "Description", or "Missing: a, b"
  int state = kRowNoBox;
};

// Column titles, in order.
inline constexpr const char* kPackageColumns[4] = {"Name", "Version", "Architecture", "Description"};

// Watches the rows (the Win32 list view; nothing in the headless front end).
class PackageListView {
 public:
  virtual ~PackageListView() = default;
  // Every row went away (start of a scan).
  virtual void rowsCleared() = 0;
  // Row index was appended, or its texts or state changed.
  virtual void rowAdded(size_t index, const PackageRow& row) = 0;
  virtual void rowChanged(size_t index, const PackageRow& row) = 0;
};

// The platform's folder chooser, behind an interface so that the catalogue's
// part of the dialog (title, start folder, status text) is tested headless.
class FolderBrowser {
 public:
  virtual ~FolderBrowser() = default;
  struct Request {
    std::string title;        // "Select package directory:"
    std::string startFolder;  // preselected
    // Called when the dialog starts (logs "init path: ").
    std::function<void()> onInit;
    // The status text for a highlighted folder:
    // "There are %d package(s) in this directory".
    std::function<std::string(const std::string& folder)> statusFor;
  };
  // Shows the chooser; true with the chosen folder on OK, false on cancel.
  virtual bool browse(const Request& request, std::string& chosenFolder) = 0;
};

class PackageCatalogue {
 public:
  PackageCatalogue() = default;
  PackageCatalogue(const PackageCatalogue&) = delete;
  PackageCatalogue& operator=(const PackageCatalogue&) = delete;

  // The view to keep informed; nullptr for none. Not owned.
  void setView(PackageListView* view) { view_ = view; }

  // Stores the folder and the architecture code (0 = every architecture,
  // 1..9 one architecture, above 9 none) and scans.
  void setFolder(const std::string& folder, uint32_t architectureCode);
  // The folder dialog; on OK stores the folder and scans. Returns whether
  // the user chose a folder.
  bool browseFolder(FolderBrowser& browser);
  // The folder scan: reads every "*.npk" then "*.dpk" file in ascending name
  // order, makes exclusions mutual and marks missing dependencies. Logs
  // "Looking for packages in ", "Loading ", ..., "Loaded N package(s)".
  void reload();
  // Reads one file of the folder and appends its record and row; false when
  // the file was rejected. reload() calls it; public for tests and tools.
  bool addPackage(const std::string& fileName);

  // Number of package files in a folder: the "*.npk" files, plus the "*.dpk"
  // files only when there was at least one "*.npk".
  static int countPackageFiles(const std::string& folder);
  // "There are %d package(s) in this directory".
  static std::string folderStatusText(const std::string& folder);

  // The user clicked row index's check box: selects or clears it with all
  // consequences, then rewrites selection to the file names of every
  // selected record in record order. The front end ignores clicks on rows in
  // states 0, 3, 4 and 5 (see canToggle).
  void toggle(size_t index, std::vector<std::string>& selection);
  bool canToggle(size_t index) const;
  // toggle() by file name, for front ends without a list: false (nothing
  // changes) when the file is not listed or its row cannot be clicked.
  bool toggleFile(const std::string& fileName, std::vector<std::string>& selection);
  // Selects (on) or clears one record with all consequences.
  void select(size_t index, bool on);

  // Shows a router's selection: rows whose file is in it get state 1, the
  // others state 2, except rows with missing dependencies, which keep 3.
  // No dependency logic runs. Unknown names are ignored.
  void applySelection(const std::vector<std::string>& selection);
  // A busy router: chosen rows 4, others 5 (rows in state 3 keep it).
  void applyBusySelection(const std::vector<std::string>& selection);
  // No router selected: every row 0, except rows in state 3.
  void clearSelectionView();

  // "name depends on a (6.41 - any), b (6.41)", or "... depends on nothing".
  std::string describeDependencies(size_t index) const;

  // The selection's files with every dependency before its dependants, each
  // once. Names not in the catalogue are left out (and logged).
  std::vector<std::string> installOrder(const std::vector<std::string>& selection);

  // Index of the record of fileName, or -1.
  int findByFileName(const std::string& fileName) const;
  // The size of fileName in bytes; 0 when unknown.
  uint32_t fileSizeOf(const std::string& fileName) const;
  // The sum of the sizes of files (unknown names count 0).
  uint64_t totalSizeOf(const std::vector<std::string>& files) const;
  // The full path of a file of the folder.
  std::string filePath(const std::string& fileName) const;
  // Whether the package in fileName is at least version. Only the system
  // package is held to the minimum: a lower version of any other package
  // (except one named "brisvane") passes. Unknown files fail.
  bool isVersionAtLeast(const std::string& fileName, PackageVersion version) const;

  uint32_t architectureCode() const { return architectureCode_; }
  const std::string& folder() const { return folder_; }
  size_t size() const { return records_.size(); }
  const std::vector<PackageRecord>& records() const { return records_; }
  const PackageRecord& record(size_t index) const { return records_[index]; }
  const PackageRow& row(size_t index) const { return rows_[index]; }
  int rowState(size_t index) const { return rows_[index].state; }
  // Sets the state and mirrors it in the record's selected flag.
  void setRowState(size_t index, int state);
  // Number of records whose selected flag is set.
  size_t selectedCount() const;

 private:
  uint32_t internName(const std::string& name);
  void addConstraint(size_t index, const PackageDependency& entry);
  bool isExcluded(size_t r, size_t c) const;
  // isExcluded with answers remembered in memo (one slot per record), for
  // loops that ask about the same record many times.
  bool isExcludedMemo(size_t r, size_t c, std::vector<int8_t>& memo) const;
  std::vector<size_t> candidates(const PackageDependency& d) const;
  void visit(size_t index, std::vector<std::string>& order);
  void notifyChanged(size_t index);

  PackageListView* view_ = nullptr;
  std::string folder_;
  uint32_t architectureCode_ = 0;
  std::vector<PackageRecord> records_;
  std::vector<PackageRow> rows_;
  // Names as small integers, so that the scan's many comparisons are cheap.
  std::unordered_map<std::string, uint32_t> nameIndex_;
  // Records that list a name among their providedNames, in index order.
  std::vector<std::vector<size_t>> providersById_;
  std::vector<std::vector<uint32_t>> providedIds_;
  std::vector<uint32_t> nameIds_;
  std::vector<std::vector<uint32_t>> constraintIds_;
  std::vector<std::vector<uint32_t>> dependencyIds_;
};

}  // namespace tarnlift::packages
