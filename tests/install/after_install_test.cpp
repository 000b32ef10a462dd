#include "install/after_install.h"

#include <gtest/gtest.h>

namespace tarnlift {
namespace {

using namespace install;

TEST(AfterInstallTest, TheInventoryWinsThenTheRoutersOwnChoiceThenTheDefault) {
  using A = AfterInstall;
  EXPECT_EQ(chooseAfterInstall(A::Shutdown, A::None, A::Reboot), A::Shutdown);
  EXPECT_EQ(chooseAfterInstall(A::None, A::Shutdown, A::Reboot), A::None);
  EXPECT_EQ(chooseAfterInstall(std::nullopt, A::None, A::Reboot), A::None);
  EXPECT_EQ(chooseAfterInstall(std::nullopt, A::Shutdown, A::None), A::Shutdown);
  EXPECT_EQ(chooseAfterInstall(std::nullopt, std::nullopt, A::Shutdown), A::Shutdown);
  EXPECT_EQ(chooseAfterInstall(std::nullopt, std::nullopt, A::None), A::None);
}

}  // namespace
}  // namespace tarnlift
