#include "cli/netboot_options.h"

#include "cli/cli_options.h"
#include "cli/command.h"

namespace tarnlift::cli {

void addNetbootOptions(CLI::App& app, netboot::NetbootServeOptions& options, bool withSwitch) {
  const char* group = "Network booting";
  if (withSwitch) {
    addSwitch(app, "--netboot", options.netboot,
              "Also serve BOOTP/PXE and TFTP on the client address's interface (default: off).")
        ->group(group);
  }
  addValue(app, "--boot-images", options.bootImageDir, "DIR",
           "Serve the boot image records (NUMBER.bin) of this folder (default: the per-user folder, then the "
           "system folder).")
      ->group(group);
  addValue(app, "--kernel", options.kernelFile, "FILE", "Serve FILE in place of every boot image.")->group(group);
}

int checkNetbootOptions(const netboot::NetbootServeOptions& options, bool withSwitch) {
  if (withSwitch && !options.netboot && (!options.bootImageDir.empty() || !options.kernelFile.empty())) {
    return usageError("--boot-images and --kernel need --netboot");
  }
  return kExitOk;
}

}  // namespace tarnlift::cli
