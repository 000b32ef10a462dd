#include <gtest/gtest.h>

#include <iostream>
#include <regex>

#include "app/failure.h"
#include "app/sync.h"
#include "app/version.h"
#include "tests/app/capture_log.h"

namespace tarnlift {
namespace {

using namespace app;

using testing::CapturedLog;

TEST(LogLine, WritesOneFlushedLineWithStreamBooleans) {
  CapturedLog log;
  logLine() << "cd: " << true;
  logLine() << "start thread: " << 42u << " name="
            << "x";
  EXPECT_EQ(log.text(), "cd: 1\nstart thread: 42 name=x\n");
}

TEST(ReportFailure, AppendsSystemTextAndCode) {
  CapturedLog log;
  std::string message = "RegCreateKeyEx";
  reportFailure(message, 2, false);
  EXPECT_EQ(message, "RegCreateKeyEx: " + systemErrorText(2) + " (2)");
  EXPECT_FALSE(systemErrorText(2).empty());
  EXPECT_EQ(log.text(), message + "\n");
}

TEST(ReportFailure, CodeZeroNamesTheErrorLeftByAnEarlierCall) {
  CapturedLog log;
  Event event(true);      // made before: creating sets the last error itself
  setLastSystemError(5);  // what an earlier failed call left behind
  // Calls that succeed (system calls on Windows) leave the last error alone.
  event.set();
  event.reset();
  std::string message = "after success";
  reportFailure(message, 0, false);
  EXPECT_EQ(message, "after success: " + systemErrorText(5) + " (5)");
  EXPECT_EQ(log.text(), message + "\n");
}

TEST(ReportFailure, CodeZeroWithNoEarlierErrorCarriesZero) {
  CapturedLog log;
  setLastSystemError(0);
  std::string message = "clean";
  reportFailure(message, 0, false);
  EXPECT_NE(message.find(" (0)"), std::string::npos) << message;
}

TEST(ReportFailure, UnknownCodeStillCarriesTheNumber) {
  CapturedLog log;
  std::string message = "odd";
  reportFailure(message, 0x7ABCDEF1u, false);
  EXPECT_NE(message.find(" (2059198193)"), std::string::npos) << message;
}

void presentOnStderr(const std::string& text) { std::cerr << "BOX[" << text << "]" << std::endl; }

TEST(ReportFailureDeathTest, FatalShowsTheComposedTextAndExitsWithOne) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::string expected = "CreateThread: " + systemErrorText(2) + " (2)";
  // The box text is matched literally: quote every regex character.
  std::string pattern = std::regex_replace(expected, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
  EXPECT_EXIT(
      {
        setFatalPresenter(&presentOnStderr);
        std::string message = "CreateThread";
        reportFailure(message, 2, true);
      },
      ::testing::ExitedWithCode(1), "BOX\\[" + pattern);
}

TEST(Version, TextIsVersionThenBuildMoment) {
  std::regex form(R"(^\d+\.\d+(alpha|beta|rc)?\d* \(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\)$)");
  EXPECT_TRUE(std::regex_match(std::string(kVersionText), form)) << kVersionText;
  EXPECT_EQ(std::string(kVersionText).rfind(kVersionWords, 0), 0u);
}

}  // namespace
}  // namespace tarnlift
