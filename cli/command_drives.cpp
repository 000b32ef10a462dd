// `tarnlift drives`: the local drives as the window's list shows them, one
// tab-separated line each: label, hardware address, drive type.
#include <iostream>

#include "cli/command.h"
#include "localdisk/local_drives.h"

namespace tarnlift::cli {
namespace {

int runDrives(const std::vector<std::string>& arguments) {
  if (!arguments.empty()) return usageError("drives takes no arguments");
  for (const RouterRecord& row : localdisk::listLocalDrives()) {
    std::cout << row.label << '\t' << macText(row.mac) << '\t' << localdisk::driveTypeText(row.driveType) << '\n';
  }
  std::cout.flush();
  return kExitOk;
}

const CliCommandRegistrar drivesCommand({"drives", "", "List the local drives a disk installation may use.",
                                         &runDrives});

}  // namespace
}  // namespace tarnlift::cli
