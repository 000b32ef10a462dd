#include <gtest/gtest.h>

#include "app/single_instance.h"
#include "app/startup.h"
#include "tests/app/capture_log.h"

namespace tarnlift {
namespace {

using namespace app;

TEST(StartupCommandLine, FlagAnywhereSetsCurrentDirectory) {
  for (const char* line : {"--current-directory", "a b --current-directory c", "x--current-directoryy",
                           "\"C:\\dir --current-directory\\k\""}) {
    StartupOptions options = parseStartupCommandLine(line);
    EXPECT_TRUE(options.currentDirectory) << line;
    EXPECT_EQ(options.kernelOverride, "") << line;
  }
}

TEST(StartupCommandLine, WithoutFlagTheWholeLineIsTheKernelOverride) {
  StartupOptions options = parseStartupCommandLine("C:\\images\\my kernel.bin");
  EXPECT_FALSE(options.currentDirectory);
  EXPECT_EQ(options.kernelOverride, "C:\\images\\my kernel.bin");
  EXPECT_EQ(parseStartupCommandLine("").kernelOverride, "");
}

TEST(StartupCommandLine, SearchIsCaseSensitive) {
  StartupOptions options = parseStartupCommandLine("--Current-Directory");
  EXPECT_FALSE(options.currentDirectory);
  EXPECT_EQ(options.kernelOverride, "--Current-Directory");
}

TEST(StartupCommandLine, LogsTheThreeLines) {
  testing::CapturedLog log;
  std::string line = "k.bin";
  logStartupOptions(line, parseStartupCommandLine(line));
  EXPECT_EQ(log.text(), "cmd: k.bin\ncd: 0\nko: 'k.bin'\n");
}

TEST(SingleInstance, SecondAcquireOfTheSameNameFindsItRunning) {
  const std::string name =
      "TarnliftTestGuard" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "x";
  EXPECT_EQ(acquireSingleInstance(name), InstanceGuard::Acquired);
  EXPECT_EQ(acquireSingleInstance(name), InstanceGuard::AlreadyRunning);
  EXPECT_EQ(acquireSingleInstance(name + "other"), InstanceGuard::Acquired);
}

}  // namespace
}  // namespace tarnlift
