// Which after-install action (reboot, shutdown, none) a router gets: one
// precedence for every front end. A router's inventory section says it
// first; then the choice made for that router alone (the web console's
// `after`); then the front end's own default (`serve`'s --after, the
// window's "Auto reboot" list).
#pragma once

#include <optional>

#include "install/desk.h"

namespace tarnlift::install {

AfterInstall chooseAfterInstall(std::optional<AfterInstall> fromInventory, std::optional<AfterInstall> forThisRouter,
                                AfterInstall byDefault);

}  // namespace tarnlift::install
