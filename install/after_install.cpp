#include "install/after_install.h"

namespace tarnlift::install {

AfterInstall chooseAfterInstall(std::optional<AfterInstall> fromInventory, std::optional<AfterInstall> forThisRouter,
                                AfterInstall byDefault) {
  if (fromInventory) return *fromInventory;
  if (forThisRouter) return *forThisRouter;
  return byDefault;
}

}  // namespace tarnlift::install
