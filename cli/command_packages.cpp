// `tarnlift packages [--arch CODE] [--tick FILE]... [--json] DIR`: scans a package
// folder as the main window does, ticks files as a user clicking the check
// boxes with a router selected, and prints the rows, the selection and the
// install order.
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "app/log.h"
#include "cli/cli_options.h"
#include "cli/command.h"
#include "packages/package_catalogue.h"
#include "packages/package_folder.h"
#include "web/json_text.h"

namespace tarnlift::cli {
namespace {

using packages::PackageCatalogue;

void printJson(PackageCatalogue& catalogue, const std::vector<std::string>& selection, bool ticked) {
  nlohmann::json rows = nlohmann::json::array();
  for (size_t i = 0; i < catalogue.size(); ++i) {
    const packages::PackageRecord& record = catalogue.record(i);
    const packages::PackageRow& row = catalogue.row(i);
    rows.push_back({{"file", record.fileName},
                    {"name", row.name},
                    {"version", row.version},
                    {"architecture", row.architecture},
                    {"description", row.description},
                    {"state", row.state},
                    {"checked", row.state == packages::kRowChecked || row.state == packages::kRowCheckedBusy}});
  }
  nlohmann::json document{{"packages", rows}};
  if (ticked) {
    document["selected"] = selection;
    document["order"] = catalogue.installOrder(selection);
  }
  std::cout << web::jsonText(document, web::JsonCharacters::AsciiEscapes) << std::endl;
}

void printList(const char* tag, const std::vector<std::string>& names) {
  std::cout << tag;
  for (const std::string& name : names) std::cout << '\t' << name;
  std::cout << '\n';
}

struct PackagesArguments {
  std::string arch;
  std::vector<std::string> ticks;
  std::string folder;
  bool json = false;
};

int runPackages(const PackagesArguments& arguments) {
  uint32_t architecture = 0;
  if (!arguments.arch.empty()) {
    uint64_t code = 0;
    if (!parseUnsigned(arguments.arch, code, 0xFFFFFFFFu))
      return usageError("bad architecture code '" + arguments.arch + "'");
    architecture = static_cast<uint32_t>(code);
  }
  const std::vector<std::string>& ticks = arguments.ticks;
  const std::string& folder = arguments.folder;
  if (folder.empty())
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
      app::logLine() << "cannot tick " << file << ": " << catalogue.row(static_cast<size_t>(index)).description;
      continue;
    }
    app::logLine() << "Selected " << selection.size() << " package(s)";
  }

  if (arguments.json) {
    printJson(catalogue, selection, !ticks.empty());
    return kExitOk;
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

CommandRun definePackages(CLI::App& app) {
  auto arguments = std::make_shared<PackagesArguments>();
  addValue(app, "--arch", arguments->arch, "CODE",
           "Architecture code of the router the list is for: 0 any, 1 i386, 2 mipsel, 3 powerpc, 4 mips, 5 tile, "
           "6 arm, 7 arm64, 8 smips, 9 mmips (default: 0).");
  addRepeated(app, "--tick", arguments->ticks, "FILE",
              "Tick this package file as a click on its box does; repeatable, applied in order.");
  addSwitch(app, "--json", arguments->json,
            "Print one JSON object (rows, and with --tick the selection and install order) instead of tab-separated "
            "lines.");
  app.add_option("DIR", arguments->folder, "The package folder to list.")->option_text(" ");
  return [arguments] { return runPackages(*arguments); };
}

const CliCommandRegistrar packagesCommand({"packages",
                                           "List a package folder, tick files, print the selection and install order.",
                                           &definePackages});

}  // namespace
}  // namespace tarnlift::cli
