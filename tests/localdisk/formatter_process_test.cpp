// The platform's formatter process for real, with the stand-in program in
// the formatter's place: answers on its input, output into the log, the
// time limit, a stop, and the kill that ends what the formatter started.
#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <thread>

#include "app/sync.h"
#include "localdisk/local_drives.h"
#include "tests/app/capture_log.h"
#include "tests/app/process_alive.h"

#ifndef TARNLIFT_RUNNER_STANDIN
#error "the build names the stand-in program"
#endif

namespace tarnlift::localdisk {
namespace {

FormatterCommand standIn(const std::string& milliseconds, std::vector<std::string> words) {
  FormatterCommand command;
  command.program = TARNLIFT_RUNNER_STANDIN;
  command.arguments = {milliseconds, "-"};
  command.arguments.insert(command.arguments.end(), words.begin(), words.end());
  command.answers = {"y\r\n"};
  return command;
}

// The child the stand-in started (its "child PID" line) has ended too.
void expectItsChildEnded(const std::string& log) {
  std::smatch found;
  ASSERT_TRUE(std::regex_search(log, found, std::regex("child ([0-9]+)"))) << log;
  EXPECT_TRUE(tarnlift::testing::processGone(std::stoul(found[1].str()))) << "the formatter's own child is left running";
}

TEST(FormatterProcess, TheFormatterGetsItsAnswerAndItsOutputIsLogged) {
  tarnlift::testing::CapturedLog log;
  std::unique_ptr<FormatterProcess> process = makePlatformFormatterProcess();
  EXPECT_TRUE(runFormatter(*process, standIn("10", {"E:", "/V:y"}), 20000));
  EXPECT_TRUE(log.contains("format before\n")) << log.text();
  EXPECT_TRUE(log.contains("\nstarted E: /V:y\n")) << log.text();
  EXPECT_TRUE(log.contains("\nanswer y\n")) << log.text();
  EXPECT_TRUE(log.contains("format done\n")) << log.text();
}

TEST(FormatterProcess, AnArgumentWithBlanksArrivesAsOneWord) {
  tarnlift::testing::CapturedLog log;
  std::unique_ptr<FormatterProcess> process = makePlatformFormatterProcess();
  // The stand-in joins its words with single blanks: two blanks in a row
  // come back only if the word was never split.
  EXPECT_TRUE(runFormatter(*process, standIn("10", {"/srv/my  disks/disk one.img", "y"}), 20000));
  EXPECT_TRUE(log.contains("\nstarted /srv/my  disks/disk one.img y\n")) << log.text();
}

TEST(FormatterProcess, AFormatterThatTakesTooLongIsKilledWithWhatItStarted) {
  tarnlift::testing::CapturedLog log;
  std::unique_ptr<FormatterProcess> process = makePlatformFormatterProcess();
  auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(runFormatter(*process, standIn("60000", {"slow", "--child"}), 1500));
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
  EXPECT_TRUE(log.contains("format timeout\n")) << log.text();
  EXPECT_FALSE(log.contains("even TerminateProcess failed"));
  EXPECT_FALSE(log.contains("format done"));
  expectItsChildEnded(log.text());
}

TEST(FormatterProcess, AStopEndsTheFormatterAndWhatItStartedAtOnce) {
  tarnlift::testing::CapturedLog log;
  std::unique_ptr<FormatterProcess> process = makePlatformFormatterProcess();
  app::Event stop(true);
  // Time enough for the stand-in to start its child (the log is not read
  // while the formatter's run writes it).
  std::thread stopper([&] {
    app::sleepMilliseconds(3000);
    stop.set();
  });
  auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(runFormatter(*process, standIn("60000", {"--child"}), kFormatTimeoutMs, &stop));
  stopper.join();
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));
  EXPECT_TRUE(log.contains("format stopped\n")) << log.text();
  expectItsChildEnded(log.text());
}

TEST(FormatterProcess, AMissingFormatterCannotStart) {
  tarnlift::testing::CapturedLog log;
  std::unique_ptr<FormatterProcess> process = makePlatformFormatterProcess();
  FormatterCommand command;
  command.program = "/no/such/formatter";
  command.arguments = {"E:"};
  EXPECT_FALSE(runFormatter(*process, command, 1000));
  EXPECT_TRUE(log.contains("Cannot start format\n")) << log.text();
}

}  // namespace
}  // namespace tarnlift::localdisk
