// The control-state table on its own: what the window enables is what the
// console is told.
#include "install/control_rules.h"

#include <gtest/gtest.h>

namespace tarnlift {
namespace {

using namespace install;

TEST(ControlRules, NoRouterEnablesNothing) {
  ControlRules c = controlRulesFor(nullptr, false);
  EXPECT_FALSE(c.install || c.reboot || c.shutdown || c.cancel || c.sets || c.packages || c.addressFields);
}

TEST(ControlRules, InstallRebootShutdownFollowReadyOrWaitingReboot) {
  RouterRecord r;
  for (uint32_t status : {kStatusReady, kStatusWaitingReboot}) {
    r.status = status;
    ControlRules c = controlRulesFor(&r, false);
    EXPECT_TRUE(c.install && c.reboot && c.shutdown && c.cancel) << status;
  }
  for (uint32_t status : {kStatusDone, kStatusFailed, kStatusInstalling, kStatusNone}) {
    r.status = status;
    ControlRules c = controlRulesFor(&r, false);
    EXPECT_FALSE(c.install || c.reboot || c.shutdown) << status;
    EXPECT_TRUE(c.cancel) << status;
  }
}

TEST(ControlRules, PackagesChangeOnlyWhenNotBusy) {
  RouterRecord r;
  r.status = kStatusReady;
  EXPECT_TRUE(packagesChangeable(&r));
  r.status = kStatusDone;
  EXPECT_TRUE(packagesChangeable(&r));
  for (uint32_t status : {kStatusInstalling, kStatusWaitingReboot, kStatusNone}) {
    r.status = status;
    EXPECT_FALSE(packagesChangeable(&r)) << status;
  }
}

TEST(ControlRules, KeepConfigLocksAddressBaudScriptsAndDefault) {
  RouterRecord r;
  r.status = kStatusReady;
  r.unprotected = false;  // a default configuration to apply
  ControlRules c = controlRulesFor(&r, false);
  EXPECT_TRUE(c.addressFields && c.baud && c.script && c.modeScript && c.defaultConfig);
  r.keepConfig = true;
  c = controlRulesFor(&r, false);
  EXPECT_FALSE(c.addressFields || c.baud || c.script || c.modeScript || c.defaultConfig);
  EXPECT_TRUE(c.keepConfig);
}

TEST(ControlRules, SaveAndDeleteSetFollowTheShownSet) {
  RouterRecord r;
  r.status = kStatusReady;
  EXPECT_TRUE(controlRulesFor(&r, false).saveSet);
  EXPECT_FALSE(controlRulesFor(&r, false).deleteSet);
  EXPECT_FALSE(controlRulesFor(&r, true).saveSet);
  EXPECT_TRUE(controlRulesFor(&r, true).deleteSet);
}

}  // namespace
}  // namespace tarnlift
