// The platform's formatter process for real, with the stand-in program in
// the formatter's place: answers on its input, output into the log, the
// time limit and the kill.
#include <gtest/gtest.h>

#include <chrono>

#include "localdisk/local_drives.h"
#include "tests/app/capture_log.h"

#ifndef TARNLIFT_RUNNER_STANDIN
#error "the build names the stand-in program"
#endif

namespace tarnlift::localdisk {
namespace {

FormatterCommand standIn(const std::string& milliseconds, const std::string& words) {
  FormatterCommand command;
  command.program = TARNLIFT_RUNNER_STANDIN;
  command.commandLine = command.program + " " + milliseconds + " - " + words;
  command.answers = {"y\r\n"};
  return command;
}

TEST(FormatterProcess, TheFormatterGetsItsAnswerAndItsOutputIsLogged) {
  tarnlift::testing::CapturedLog log;
  std::unique_ptr<FormatterProcess> process = makePlatformFormatterProcess();
  EXPECT_TRUE(runFormatter(*process, standIn("10", "E: /V:y"), 20000));
  EXPECT_TRUE(log.contains("format before\n")) << log.text();
  EXPECT_TRUE(log.contains("started E: /V:y")) << log.text();
  EXPECT_TRUE(log.contains("answer y")) << log.text();
  EXPECT_TRUE(log.contains("format done\n")) << log.text();
}

TEST(FormatterProcess, AFormatterThatTakesTooLongIsKilled) {
  tarnlift::testing::CapturedLog log;
  std::unique_ptr<FormatterProcess> process = makePlatformFormatterProcess();
  auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(runFormatter(*process, standIn("60000", "slow"), 500));
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
  EXPECT_TRUE(log.contains("format timeout\n")) << log.text();
  EXPECT_FALSE(log.contains("even TerminateProcess failed"));
  EXPECT_FALSE(log.contains("format done"));
}

TEST(FormatterProcess, AMissingFormatterCannotStart) {
  tarnlift::testing::CapturedLog log;
  std::unique_ptr<FormatterProcess> process = makePlatformFormatterProcess();
  FormatterCommand command;
  command.program = "/no/such/formatter";
  command.commandLine = "/no/such/formatter E:";
  EXPECT_FALSE(runFormatter(*process, command, 1000));
  EXPECT_TRUE(log.contains("Cannot start format\n")) << log.text();
}

}  // namespace
}  // namespace tarnlift::localdisk
