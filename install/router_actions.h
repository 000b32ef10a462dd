// The actions on one row of the router table: Install, Reboot, Shutdown,
// Cancel, a package tick, "Select all" and "Select none". Every front end
// runs these, the window on its selected row, the web console on the row a
// request names and `serve` on each router it installs, so a router behaves
// the same whichever front end drives it. Reading the front end's controls
// or request is the front end's business; these take the values.
#pragma once

#include <cstddef>

#include "install/desk.h"
#include "install/install_command.h"
#include "install/router_record.h"
#include "packages/package_catalogue.h"
#include "packages/package_sets.h"

namespace tarnlift::install {

// Shows r's package folder and architecture in the catalogue (an empty
// folder takes the catalogue's). True when the catalogue was switched.
bool showRouterPackages(packages::PackageCatalogue& catalogue, RouterRecord& r);

// Ticks or clears package index for r, with the catalogue's rules; nothing
// when r's packages cannot change or the row cannot be ticked. A choice
// changed by hand no longer comes from a set. True when it toggled.
bool togglePackageOf(packages::PackageCatalogue& catalogue, RouterRecord& r, size_t index);

// "Select all" (all: true) and "Select none": ticks every unticked row, or
// clears every ticked one, in row order with the tick rules; a choice that
// changed no longer comes from a set. The catalogue shows r's rows.
void selectAllOf(packages::PackageCatalogue& catalogue, RouterRecord& r, bool all);

// "Reboot" and "Shutdown": a ready router is handed to the installer first,
// told, its session dropped and the row marked "Done". Drives: nothing.
void rebootOrShutdownRow(InstallDesk& desk, RouterRecord& r, bool reboot);

// "Cancel": a drive's installation stops and the row starts over from the
// saved and remembered choices; a router's session is dropped together with
// its row (r is gone afterwards).
void cancelRow(InstallDesk& desk, const RememberedChoices& remembered, RouterRecord& r);

// "Install" with the choices the front end shows for r: the Install
// command for r (network router or drive) with r's choice of packages;
// once started, the row shows the session's first status. A drive that may
// not be erased is refused with the reason in an "Error" box.
InstallOutcome installRow(InstallDesk& desk, packages::PackageCatalogue& catalogue, packages::PackageSets& sets,
                          RememberedChoices& remembered, InstallPrompter& prompter, RouterRecord& r,
                          const InstallChoices& choices);

}  // namespace tarnlift::install
