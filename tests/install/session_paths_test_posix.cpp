// The Linux rule for the request's file paths: POSIX paths.
#include <gtest/gtest.h>

#include "install/session_paths.h"

namespace tarnlift {
namespace {

using namespace install;

TEST(SessionPathsPosix, RelativeUnlessItStartsAtTheRoot) {
  EXPECT_TRUE(isRelativePackagePath("system-7.1.npk"));
  EXPECT_TRUE(isRelativePackagePath("sub/dir/system.npk"));
  EXPECT_TRUE(isRelativePackagePath("C:\\pkgs\\system.npk"));  // a drive letter means nothing here
  EXPECT_FALSE(isRelativePackagePath("/srv/pkgs/system.npk"));
}

TEST(SessionPathsPosix, RelativePathsAreReadFromThePackageFolder) {
  EXPECT_EQ(packageFilePath("/srv/pkgs", "system.npk"), "/srv/pkgs/system.npk");
  EXPECT_EQ(packageFilePath("/srv/pkgs/", "system.npk"), "/srv/pkgs/system.npk");
  EXPECT_EQ(packageFilePath("/srv/pkgs", "sub/x.npk"), "/srv/pkgs/sub/x.npk");
}

TEST(SessionPathsPosix, TheRouterGetsWhatFollowsTheLastSlash) {
  EXPECT_EQ(remoteFileName("/srv/pkgs/system.npk"), "system.npk");
  EXPECT_EQ(remoteFileName("system.npk"), "system.npk");
  EXPECT_EQ(remoteFileName("odd\\name.npk"), "odd\\name.npk");
}

}  // namespace
}  // namespace tarnlift
