// The Windows rule for the request's file paths, exactly as designed:
// relative unless the second character is ':', the name after the last '\'.
#include <gtest/gtest.h>

#include "install/session_paths.h"

namespace tarnlift {
namespace {

using namespace install;

TEST(SessionPathsWindows, RelativeUnlessTheSecondCharacterIsAColon) {
  EXPECT_FALSE(isRelativePackagePath("C:\\pkgs\\system.npk"));
  EXPECT_FALSE(isRelativePackagePath("d:system.npk"));
  EXPECT_TRUE(isRelativePackagePath("system.npk"));
  EXPECT_TRUE(isRelativePackagePath("sub\\system.npk"));
  EXPECT_TRUE(isRelativePackagePath("\\pkgs\\system.npk"));
  EXPECT_TRUE(isRelativePackagePath("/pkgs/system.npk"));
  EXPECT_TRUE(isRelativePackagePath(""));
}

TEST(SessionPathsWindows, RelativePathsAreFolderBackslashPath) {
  EXPECT_EQ(packageFilePath("C:\\pkgs", "system.npk"), "C:\\pkgs\\system.npk");
  EXPECT_EQ(packageFilePath("C:\\pkgs", "sub\\x.npk"), "C:\\pkgs\\sub\\x.npk");
}

TEST(SessionPathsWindows, TheRouterGetsWhatFollowsTheLastBackslash) {
  EXPECT_EQ(remoteFileName("C:\\pkgs\\system.npk"), "system.npk");
  EXPECT_EQ(remoteFileName("system.npk"), "system.npk");
  EXPECT_EQ(remoteFileName("C:/pkgs/system.npk"), "C:/pkgs/system.npk");
}

}  // namespace
}  // namespace tarnlift
