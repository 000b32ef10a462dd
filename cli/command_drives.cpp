// `tarnlift drives`: the local drives as the window's list shows them, one
// tab-separated line each: label, hardware address, drive type, and what
// the disk is (its number on Windows, size and model); or with --json one
// array of objects.
#include <iostream>
#include <memory>

#include "cli/cli_options.h"
#include "cli/command.h"
#include "localdisk/local_drives.h"
#include "web/json_text.h"

namespace tarnlift::cli {
namespace {

int runDrives(bool json) {
  nlohmann::json rows = nlohmann::json::array();
  for (const install::RouterRecord& row : localdisk::listLocalDrives()) {
    if (json) {
      rows.push_back({{"label", row.label},
                      {"mac", install::macText(row.mac)},
                      {"type", localdisk::driveTypeText(row.driveType)},
                      {"description", row.driveDescription}});
    } else {
      std::cout << row.label << '\t' << install::macText(row.mac) << '\t' << localdisk::driveTypeText(row.driveType)
                << '\t' << row.driveDescription << '\n';
    }
  }
  if (json) std::cout << web::jsonText(rows, web::JsonCharacters::AsciiEscapes) << '\n';
  std::cout.flush();
  return kExitOk;
}

CommandRun defineDrives(CLI::App& app) {
  auto json = std::make_shared<bool>(false);
  addSwitch(app, "--json", *json,
            "Print one JSON array of {label, mac, type, description} instead of tab-separated lines.");
  return [json] { return runDrives(*json); };
}

const CliCommandRegistrar drivesCommand({"drives", "List the local drives a disk installation may use.",
                                         &defineDrives});

}  // namespace
}  // namespace tarnlift::cli
