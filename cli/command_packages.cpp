// `tarnlift packages [--arch CODE] [--tick FILE]... DIR`: scans a package
// folder as the main window does, ticks files as a user clicking the check
// boxes with a router selected, and prints the rows, the selection and the
// install order.
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "app/log.h"
#include "cli/command.h"
#include "packages/package_catalogue.h"
#include "packages/package_folder.h"

namespace tarnlift::cli {
namespace {

using packages::PackageCatalogue;

void printList(const char* tag, const std::vector<std::string>& names) {
  std::cout << tag;
  for (const std::string& name : names) std::cout << '\t' << name;
  std::cout << '\n';
}

int runPackages(const std::vector<std::string>& arguments) {
  uint32_t architecture = 0;
  std::vector<std::string> ticks;
  std::string folder;
  bool haveFolder = false;
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "--arch") {
      if (i + 1 >= arguments.size()) return usageError("--arch needs an architecture code (0 to 9)");
      char* end = nullptr;
      const std::string& text = arguments[++i];
      const unsigned long code = std::strtoul(text.c_str(), &end, 10);
      if (text.empty() || *end != 0 || code > 0xFFFFFFFFul) return usageError("bad architecture code '" + text + "'");
      architecture = static_cast<uint32_t>(code);
    } else if (argument == "--tick") {
      if (i + 1 >= arguments.size()) return usageError("--tick needs a package file name");
      ticks.push_back(arguments[++i]);
    } else if (!haveFolder && (argument.empty() || argument[0] != '-' || argument == "-")) {
      folder = argument;
      haveFolder = true;
    } else {
      return usageError("packages: unexpected argument '" + argument + "'");
    }
  }
  if (!haveFolder)
    return usageError("packages needs a package folder (usage: packages [--arch CODE] [--tick FILE]... DIR)");
  if (!packages::folderReadable(folder)) return usageError("cannot read package folder '" + folder + "'");

  PackageCatalogue catalogue;
  catalogue.setFolder(folder, architecture);
  // A router is selected: every row gets its check box.
  std::vector<std::string> selection;
  catalogue.applySelection(selection);
  for (const std::string& file : ticks) {
    const int index = catalogue.findByFileName(file);
    if (index < 0) return usageError("no package file '" + file + "' listed in '" + folder + "'");
    // A click on a row that cannot change is ignored, as in the window.
    if (!catalogue.toggleFile(file, selection)) {
      logLine() << "cannot tick " << file << ": " << catalogue.row(static_cast<size_t>(index)).description;
      continue;
    }
    std::cerr << "Selected " << selection.size() << " package(s)\n";
  }

  for (size_t i = 0; i < catalogue.size(); ++i) {
    const packages::PackageRecord& record = catalogue.record(i);
    const packages::PackageRow& row = catalogue.row(i);
    std::cout << record.fileName << '\t' << row.name << '\t' << row.version << '\t' << row.architecture << '\t'
              << row.description << '\t' << row.state << '\n';
  }
  if (!ticks.empty()) {
    printList("selected", selection);
    printList("order", catalogue.installOrder(selection));
  }
  std::cout.flush();
  return kExitOk;
}

const CliCommandRegistrar packagesCommand({"packages", "[--arch CODE] [--tick FILE]... DIR",
                                           "List a package folder, tick files, print the selection and install order.",
                                           &runPackages});

}  // namespace
}  // namespace tarnlift::cli
