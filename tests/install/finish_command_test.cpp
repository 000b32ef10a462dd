// The --on-finish runner with real commands of the platform's interpreter:
// the facts arrive in the environment, the output in the log, and a command
// that hangs holds up neither the caller nor the other commands.
#include "install/finish_command.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "temp_dir.h"
#include "tests/app/capture_log.h"
#include "tests/install/finish_shell.h"

namespace tarnlift {
namespace {

using namespace install;

using Clock = std::chrono::steady_clock;

RouterResult result(const std::string& mac, bool success) {
  RouterResult r;
  r.time = "2026-01-02T03:04:05Z";
  r.mac = mac;
  r.label = "Desk A";
  r.architecture = "arm";
  r.address = "10.0.0.5/24";
  r.files = {"system-6.41.npk", "extra-6.41.npk"};
  r.versions = {"6.41", "6.41rc2"};
  r.bytes = 1234;
  r.seconds = 2.5;
  r.success = success;
  r.confirmed = success;
  r.text = "Installation finished successfully";
  return r;
}

bool waitUntil(const std::function<bool()>& done, int milliseconds) {
  auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
  while (!done()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

TEST(FinishCommandTest, TheResultsFactsArriveInTheEnvironment) {
  testing::CapturedLog log;
  testing::TempDir dir;
  // A variable of the same name in serve's own environment is replaced.
  testing::setProcessVariable("TARNLIFT_MAC", "stale");
  FinishCommand command(testing::commandWritingEnvironment(dir.file("facts.txt")));
  command.submit(result("02:00:00:00:00:01", true));
  command.stop(30000);
  EXPECT_EQ(command.completed(), 1u) << log.text();
  std::string facts = testing::readFile(dir.file("facts.txt"));
  EXPECT_EQ(facts.rfind("02:00:00:00:00:01|installed|true|Desk A|arm|10.0.0.5/24|system-6.41.npk extra-6.41.npk|"
                        "6.41 6.41rc2|1234|2.500|Installation finished successfully|2026-01-02T03:04:05Z|",
                        0),
            0u)
      << facts;
  EXPECT_TRUE(log.contains("on-finish 02:00:00:00:00:01: exit code 0")) << log.text();
}

TEST(FinishCommandTest, OutputAndErrorGoToTheLogLineByLine) {
  testing::CapturedLog log;
  FinishCommand command(testing::commandPrintingTwoLines());
  command.submit(result("02:00:00:00:00:02", true));
  command.stop(30000);
  EXPECT_TRUE(log.contains("on-finish 02:00:00:00:00:02: one\n")) << log.text();
  EXPECT_TRUE(log.contains("on-finish 02:00:00:00:00:02: two\n")) << log.text();
}

TEST(FinishCommandTest, AHangingCommandHoldsUpNeitherTheCallerNorTheOthers) {
  testing::CapturedLog log;
  FinishCommand command(testing::commandHangingWhenFailed());
  auto before = Clock::now();
  command.submit(result("02:00:00:00:00:03", false));
  command.submit(result("02:00:00:00:00:04", true));
  EXPECT_LT(Clock::now() - before, std::chrono::milliseconds(500));
  EXPECT_TRUE(waitUntil([&] { return command.completed() == 1; }, 30000)) << log.text();
  EXPECT_TRUE(log.contains("on-finish 02:00:00:00:00:04: done 02:00:00:00:00:04")) << log.text();
  // The stop waits its bounded time, then kills the hanging one.
  before = Clock::now();
  command.stop(500);
  EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
  EXPECT_TRUE(log.contains("on-finish: 1 still running after 0.5 s: killed; 0 waiting: not run")) << log.text();
  // stop() waited for the killed one's worker to come back.
  EXPECT_TRUE(log.contains("on-finish 02:00:00:00:00:03: killed at the server's stop")) << log.text();
  EXPECT_EQ(command.completed(), 1u);
}

TEST(FinishCommandTest, BeyondTheBoundCommandsWaitTheirTurn) {
  testing::CapturedLog log;
  FinishCommand command(testing::commandHangingWhenFailed(), 1);
  command.submit(result("02:00:00:00:00:05", false));
  command.submit(result("02:00:00:00:00:06", true));
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_EQ(command.completed(), 0u);
  command.stop(300);
  EXPECT_TRUE(log.contains("on-finish: 1 still running after 0.3 s: killed; 1 waiting: not run")) << log.text();
  EXPECT_FALSE(log.contains("done 02:00:00:00:00:06"));
  command.submit(result("02:00:00:00:00:07", true));
  EXPECT_EQ(command.completed(), 0u);
}

}  // namespace
}  // namespace tarnlift
