// `tarnlift disk`: makes a drive (or, on Linux, a disk image file) into a
// bootable disk of the router operating system, as the window's Install
// does for a drive row: the packages are chosen through the catalogue as
// ticking boxes does, and the installation runs on its own thread.
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/log.h"
#include "app/registry.h"
#include "app/sync.h"
#include "cli/choice_options.h"
#include "cli/cli_options.h"
#include "cli/command.h"
#include "cli/stop_signals.h"
#include "install/headless.h"
#include "install/install_command.h"
#include "localdisk/disk_installation.h"
#include "localdisk/disk_target.h"
#include "netboot/boot_images.h"
#include "packages/package_catalogue.h"
#include "packages/package_sets.h"

namespace tarnlift::cli {
namespace {

struct DiskOptions {
  std::string target;
  std::string imageSizeText;
  uint64_t imageMiB = 256;
  std::string bootImages;
  bool havePackages = false;
  install::HeadlessOptions choice;  // the packages, scripts and baud rate
  ChoiceOptions given;
  bool yes = false;
};

// The Install command's messages, printed; every question is answered yes.
class PrintingPrompter : public install::InstallPrompter {
 public:
  void showMessage(const std::string& text, const std::string& title, bool) override {
    refusal = text;
    app::logLine() << "message (" << title << "): " << text;
  }
  bool askYesNo(const std::string& text) override {
    std::cerr << "tarnlift: warning: " << text << " yes" << std::endl;
    return true;
  }
  std::string refusal;
};

// The four records the disk needs, checked before anything is written so
// that a missing one is named instead of ending the program half-way.
bool checkRecords(std::string& missing) {
  const int numbers[] = {localdisk::kImageDiskKernel, localdisk::kImageDiskSyslinuxConfig,
                         localdisk::kImageDiskInitrd, localdisk::kImageDiskSyslinuxInstaller};
  for (int number : numbers) {
    netboot::BootImageLocation location;
    netboot::BootImage image;
    if (!netboot::locateBootImage(number, location) ||
        !netboot::parseBootImageRecord(location.record, location.storedSize, image)) {
      missing += (missing.empty() ? "" : ", ") + std::to_string(number);
    }
  }
  return missing.empty();
}

int check(DiskOptions& options) {
  if (!options.imageSizeText.empty() &&
      (!parseUnsigned(options.imageSizeText, options.imageMiB, 1u << 20) || options.imageMiB < 33)) {
    return usageError("--image-size needs a size in MiB of at least 33 (FAT32's smallest volume)");
  }
  if (options.target.empty()) return usageError("disk needs a TARGET (usage: disk TARGET [OPTIONS])");
  options.havePackages = options.given.packages->count() > 0;
  return checkChoiceOptions(options.given, options.choice);
}

bool confirm(const std::string& target) {
  std::cerr << "Everything on " << target << " will be erased. Type yes to go on: " << std::flush;
  std::string answer;
  std::getline(std::cin, answer);
  return answer == "yes";
}

// Runs the installation on its thread, through the drive held since the
// check, and shows its progress.
int runInstallation(const install::RouterRecord& request, std::unique_ptr<localdisk::HeldDrive> held) {
  bool live = install::terminalShowsLiveProgress();
  localdisk::DiskInstallation installation(request);
  installation.useHeldDrive(std::move(held));
  installation.start();
  std::string lastText;
  uint32_t lastState = 0;
  localdisk::DiskStatus status;
  while (true) {
    installation.notificationEvent().waitFor(100);
    bool any = false;
    while (installation.nextNotification(status)) {
      any = true;
      if (!live && (status.statusText != lastText || status.state != lastState) &&
          status.state == install::kStatusInstalling) {
        std::cout << request.label << '\t' << status.statusText << '\t' << status.percentDone() << "%" << std::endl;
      }
      lastText = status.statusText;
      lastState = status.state;
    }
    status = installation.status();
    if (stopRequested() && status.state == install::kStatusInstalling) {
      // The formatter and the boot loader's installer end first, then the
      // installation: nothing writes on the target once this is said.
      installation.cancel();
      // The writes so far stay; the volume's files or its boot sector may
      // be half-made, so the disk is said to be unusable, not left to be
      // discovered so in a router.
      if (live) std::cout << "\r\x1b[K";
      std::cout << request.label << "\tStopped: " << status.statusText << std::endl;
      std::cerr << "tarnlift: stopped by a signal while \"" << status.statusText << "\": " << request.label
                << " is not a bootable disk now; run the same command again to make it one" << std::endl;
      return kExitFailed;
    }
    if (live && any && status.state == install::kStatusInstalling) {
      std::cout << "\r\x1b[K" << status.statusText << "  " << status.percentDone() << "%" << std::flush;
    }
    if (status.state != install::kStatusInstalling) break;
  }
  installation.stopEvent().set();
  installation.waitFor(5000);
  if (live) std::cout << "\r\x1b[K";
  if (status.state == install::kStatusDone) {
    std::cout << request.label << '\t' << status.statusText << std::endl;
    return kExitOk;
  }
  std::cout << request.label << '\t' << status.errorText << std::endl;
  std::cerr << "tarnlift: " << status.errorText << std::endl;
  return kExitFailed;
}

int runDisk(DiskOptions& options) {
  if (int code = check(options); code != kExitOk) return code;
  installStopSignals();
  std::string error;
  if (!localdisk::diskTargetNameValid(options.target, error)) return usageError(error);

  if (!options.bootImages.empty()) {
    if (!netboot::directoryExists(options.bootImages)) return usageError("no folder " + options.bootImages);
    netboot::setBootImageDirectory(options.bootImages);
  }
  std::string missing;
  if (!checkRecords(missing)) {
    std::cerr << "tarnlift: the disk needs boot image records " << missing << ", which are not in "
              << netboot::bootImageSearchText() << " (make them with 'tarnlift bootimage wrap')" << std::endl;
    return kExitFailed;
  }

  app::Registry settings;
  settings.openRoot(app::kSettingsKeyPath);
  if (!options.havePackages) options.choice.packageDir = settings.readString("Package Path", ".");
  packages::PackageSets sets;
  sets.loadSets(settings);

  // The packages, chosen before the target is touched.
  localdisk::DiskTarget target;
  packages::PackageCatalogue catalogue;
  packages::PackageChoice choice;
  const uint32_t architecture = 0;  // a drive row takes packages of any architecture
  if (!options.choice.setName.empty()) {
    if (!sets.chooseSet(choice, options.choice.setName)) {
      std::cerr << "tarnlift: no package set named " << options.choice.setName << std::endl;
      return kExitFailed;
    }
    catalogue.setFolder(choice.folder, architecture);
    catalogue.applySelection(choice.files);
  } else {
    choice.folder = options.choice.packageDir;
    catalogue.setFolder(choice.folder, architecture);
    catalogue.applySelection(choice.files);
    for (const std::string& name : options.choice.select) {
      int index = catalogue.findByFileName(name);
      if (index < 0) {
        std::cerr << "tarnlift: " << name << " is not a package of " << choice.folder << std::endl;
        return kExitFailed;
      }
      size_t i = static_cast<size_t>(index);
      if (catalogue.canToggle(i) && !catalogue.record(i).selected) catalogue.toggle(i, choice.files);
    }
  }

  localdisk::TargetResult found = localdisk::resolveDiskTarget(options.target, options.imageMiB, target, error);
  if (found == localdisk::TargetResult::BadUsage) return usageError(error);
  if (found == localdisk::TargetResult::Refused) {
    std::cerr << "tarnlift: refused: " << error << std::endl;
    return kExitFailed;
  }
  // An image file that holds something is erased like a device.
  if ((target.isDevice || target.existingBytes > 0) && !options.yes) {
    if (!localdisk::standardInputIsTerminal()) {
      return usageError(target.isDevice ? "erasing the device " + options.target + " needs --yes"
                                        : "overwriting the image file " + options.target + " (" +
                                              std::to_string(target.existingBytes) + " bytes) needs --yes");
    }
    if (!confirm(options.target)) {
      std::cerr << "tarnlift: nothing was written" << std::endl;
      return kExitFailed;
    }
  }

  install::RouterRecord& row = target.row;
  row.scriptEnabled = options.choice.choices.scriptEnabled;
  row.scriptPath = options.choice.choices.scriptPath;
  row.modeScriptEnabled = options.choice.choices.modeScriptEnabled;
  row.modeScriptPath = options.choice.choices.modeScriptPath;
  install::RememberedChoices remembered;
  remembered.load(settings);
  PrintingPrompter prompter;
  install::RouterRecord request;
  bool started = false;
  install::InstallContext context{
      catalogue, choice, sets, remembered, prompter, [&](const install::RouterRecord& filled) {
        request = filled;
        started = true;
      }};
  install::InstallOutcome outcome = install::runInstallCommand(&row, options.choice.choices, context);
  if (outcome != install::InstallOutcome::Started || !started) {
    std::cerr << "tarnlift: " << prompter.refusal << std::endl;
    if (target.createdFile) std::remove(options.target.c_str());
    return kExitFailed;
  }
  // A mode script that cannot be read is refused like the window does.
  if (request.modeScriptEnabled && localdisk::fileSize(request.modeScriptPath) < 0) {
    std::cerr << "tarnlift: Could not read mode script" << std::endl;
    if (target.createdFile) std::remove(options.target.c_str());
    return kExitFailed;
  }
  // As after the window's Install: the choice becomes "Previous Install" and
  // the baud rate the remembered one.
  sets.saveSets(settings);
  remembered.save(settings);
  return runInstallation(request, std::move(target.held));
}

CommandRun defineDisk(CLI::App& app) {
  auto options = std::make_shared<DiskOptions>();
  app.add_option("TARGET", options->target,
                 "The drive (Linux: /dev/sdX; Windows: X:) or, on Linux, a disk image file to make or overwrite.")
      ->option_text(" ");
  addValue(app, "--image-size", options->imageSizeText, "MIB",
           "Size of a new disk image file in MiB, at least 33 (default: 256).");
  addValue(app, "--boot-images", options->bootImages, "DIR",
           "Take the kernel, RAM disk and boot loader records from this folder (default: the per-user folder, "
           "then the system folder).");
  options->given = addChoiceOptions(app, options->choice);
  addSwitch(app, "--yes", options->yes,
            "Erase a device or overwrite an existing image file without asking (needed when standard input is no "
            "terminal).");
  return [options] { return runDisk(*options); };
}

const CliCommandRegistrar diskCommand(
    {"disk", "Make a local drive or disk image file a bootable router disk.", &defineDisk});

}  // namespace
}  // namespace tarnlift::cli
