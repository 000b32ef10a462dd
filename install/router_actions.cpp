#include "install/router_actions.h"

#include <string>

#include "app/log.h"
#include "install/control_rules.h"

namespace tarnlift::install {

bool showRouterPackages(packages::PackageCatalogue& catalogue, RouterRecord& r) {
  if (r.packageDir.empty()) r.packageDir = catalogue.folder();
  if (r.packageDir == catalogue.folder() && r.architecture == catalogue.architectureCode()) return false;
  catalogue.setFolder(r.packageDir, r.architecture);
  return true;
}

bool togglePackageOf(packages::PackageCatalogue& catalogue, RouterRecord& r, size_t index) {
  if (!packagesChangeable(&r) || index >= catalogue.size()) return false;
  if (!catalogue.canToggle(index)) return false;
  catalogue.toggle(index, r.files);
  r.setName.clear();
  return true;
}

void selectAllOf(packages::PackageCatalogue& catalogue, RouterRecord& r, bool all) {
  packages::PackageChoice choice{r.setName, r.packageDir, r.files};
  std::vector<std::string> before = choice.files;
  if (all) {
    packages::PackageSets::selectAll(catalogue, &choice);
  } else {
    packages::PackageSets::selectNone(catalogue, &choice);
  }
  if (choice.files != before) choice.setName.clear();
  r.setName = choice.setName;
  r.packageDir = choice.folder;
  r.files = choice.files;
}

void rebootOrShutdownRow(InstallDesk& desk, RouterRecord& r, bool reboot) {
  if (r.kind != kKindRouter) return;
  RouterInstaller& routers = desk.routers();
  MacAddress mac = r.mac;
  bool wasReady = r.status == kStatusReady;
  if (wasReady) routers.start(r, false);
  if (reboot) {
    routers.reboot(mac);
  } else {
    routers.shutdown(mac);
  }
  if (wasReady) {
    routers.remove(mac);
    desk.table().setStatus(mac, kStatusDone, r.totalSize, r.progress, "");
  }
}

void cancelRow(InstallDesk& desk, const RememberedChoices& remembered, RouterRecord& r) {
  MacAddress mac = r.mac;
  if (r.kind == kKindDrive) {
    desk.drives().cancel(mac);
    desk.prepareNewDrive(r);
    remembered.applyToCancelledDrive(r);
    desk.table().setStatus(mac, kStatusReady, r.totalSize, r.progress, "");
  } else {
    desk.routers().remove(mac);
    desk.table().remove(mac);
  }
}

InstallOutcome installRow(InstallDesk& desk, packages::PackageCatalogue& catalogue, packages::PackageSets& sets,
                          RememberedChoices& remembered, InstallPrompter& prompter, RouterRecord& r,
                          const InstallChoices& choices) {
  if (r.status != kStatusReady) return InstallOutcome::Refused;
  bool drive = r.kind == kKindDrive;
  // A drive that must not be erased is refused before anything starts.
  std::string reason;
  if (drive && !desk.drives().mayErase(r, reason)) {
    app::logLine() << "refused: " << reason;
    prompter.showMessage(reason, "Error", true);
    return InstallOutcome::Refused;
  }
  packages::PackageChoice choice{r.setName, r.packageDir, r.files};
  InstallContext context{catalogue, choice, sets, remembered, prompter, [&desk, drive](const RouterRecord& request) {
                           if (drive) {
                             desk.drives().start(request);
                           } else {
                             desk.routers().start(request, true);
                           }
                         }};
  MacAddress mac = r.mac;
  InstallOutcome outcome = runInstallCommand(&r, choices, context);
  if (outcome == InstallOutcome::Started) desk.showFirstStatus(mac);
  return outcome;
}

}  // namespace tarnlift::install
