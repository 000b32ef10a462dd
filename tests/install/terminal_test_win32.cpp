// Live progress is drawn only on a console: a test's standard output is a
// pipe or a file, which gets plain lines.
#include <gtest/gtest.h>
#include <io.h>

#include <cstdio>

#include "install/headless.h"

namespace tarnlift {
namespace {

using namespace install;

TEST(LiveProgress, NotOnAPipeOrFile) {
  if (_isatty(_fileno(stdout)) != 0) GTEST_SKIP() << "standard output is a console";
  EXPECT_FALSE(terminalShowsLiveProgress());
}

}  // namespace
}  // namespace tarnlift
