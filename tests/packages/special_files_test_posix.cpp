// Files that only POSIX systems make easy: a pipe or a dangling link named
// like a package must not hold or break the scan.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "packages/package_catalogue.h"
#include "tests/app/capture_log.h"
#include "tests/packages/package_test_support.h"

namespace tarnlift::packages {
namespace {

using testing::ScratchFolder;

TEST(SpecialFiles, PipeNamedLikeAPackageDoesNotBlockTheScan) {
  tarnlift::testing::CapturedLog log;
  ScratchFolder folder;
  ASSERT_EQ(::mkfifo(folder.file("pipe.npk").c_str(), 0600), 0);
  folder.plain("real.npk", "real", "1.0");
  PackageCatalogue catalogue;
  catalogue.setFolder(folder.path(), 0);  // would block forever on a plain open
  ASSERT_EQ(catalogue.size(), 1u);
  EXPECT_EQ(catalogue.record(0).fileName, "real.npk");
}

TEST(SpecialFiles, DanglingLinkIsSkipped) {
  tarnlift::testing::CapturedLog log;
  ScratchFolder folder;
  ASSERT_EQ(::symlink("/nonexistent/target.npk", folder.file("dangling.npk").c_str()), 0);
  ASSERT_EQ(::symlink(folder.path().c_str(), folder.file("loop.npk").c_str()), 0);
  folder.plain("real.npk", "real", "1.0");
  PackageCatalogue catalogue;
  catalogue.setFolder(folder.path(), 0);
  ASSERT_EQ(catalogue.size(), 1u);
  EXPECT_EQ(catalogue.record(0).fileName, "real.npk");
}

}  // namespace
}  // namespace tarnlift::packages
