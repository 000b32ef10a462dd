#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

#include "app/failure.h"
#include "app/thread.h"
#include "tests/app/capture_log.h"

namespace tarnlift {
namespace {

using namespace app;

using testing::CapturedLog;
using Steady = std::chrono::steady_clock;

// Ends when its stop signal is set.
class ObedientThread : public Thread {
 public:
  ObedientThread() : Thread("Obedient"), stop_(true) { setStopSignal(&stop_); }
  ~ObedientThread() override { destroy(); }
  std::atomic<bool> ran{false};

 protected:
  uint32_t run() override {
    ran = true;
    stop_.waitFor(kWaitInfinite);
    return 7;
  }

 private:
  Event stop_;
};

// Never looks at its stop signal; sleeps in short steps until released.
class StubbornThread : public Thread {
 public:
  explicit StubbornThread(std::atomic<bool>& release) : Thread("Stubborn"), release_(release) {}
  ~StubbornThread() override { destroy(); }

 protected:
  uint32_t run() override {
    while (!release_) sleepMilliseconds(20);
    return 0;
  }

 private:
  std::atomic<bool>& release_;
};

TEST(Thread, NeverStartedDestroyDoesNothingButClose) {
  CapturedLog log;
  {
    ObedientThread thread;
    EXPECT_TRUE(thread.isFinished());
    EXPECT_FALSE(thread.running());
  }
  EXPECT_EQ(log.text(), "");
}

TEST(Thread, StartLogsIdAndNameAndStopSignalEndsTheBody) {
  CapturedLog log;
  ObedientThread thread;
  thread.start();
  EXPECT_TRUE(thread.running());
  EXPECT_NE(thread.id(), 0u);
  EXPECT_TRUE(log.contains("start thread: " + std::to_string(thread.id()) + " name=Obedient\n"));
  thread.stop();
  EXPECT_FALSE(thread.running());
  EXPECT_TRUE(thread.isFinished());
  EXPECT_TRUE(thread.ran);
  EXPECT_TRUE(log.contains("exit thread: " + std::to_string(thread.id()) + "\n"));
  EXPECT_FALSE(log.contains("ignoring"));
  thread.destroy();
  EXPECT_FALSE(log.contains("terminating"));
}

TEST(Thread, BodyIgnoringStopIsLoggedOnStopAndKilledOnDestroy) {
  CapturedLog log;
  std::atomic<bool> release{false};
  auto thread = std::make_unique<StubbornThread>(release);
  EXPECT_EQ(thread->stopTimeout(), 5000u);
  thread->start();
  auto before = Steady::now();
  thread->stop();
  auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Steady::now() - before).count();
  EXPECT_GE(waited, 4900);
  EXPECT_TRUE(log.contains("ignoring 'terminate': Stubborn\n"));
  EXPECT_FALSE(thread->isFinished());
  thread->destroy();
  EXPECT_TRUE(log.contains("thread still active, terminating\n"));
  EXPECT_FALSE(log.contains("exit thread: "));  // killed, not ended
  thread.reset();
  release = true;
}

TEST(Thread, StopTimeoutZeroNeverWaits) {
  CapturedLog log;
  std::atomic<bool> release{false};
  StubbornThread thread(release);
  thread.start();
  thread.setStopTimeout(0);
  auto before = Steady::now();
  thread.stop();
  auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Steady::now() - before).count();
  EXPECT_LT(waited, 1000);
  EXPECT_FALSE(thread.running());
  EXPECT_TRUE(log.contains("ignoring 'terminate': Stubborn\n"));
  release = true;
  EXPECT_TRUE(thread.waitFor(5000));
  EXPECT_TRUE(thread.isFinished());
}

TEST(ThreadDeathTest, StartingTwiceIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        testing::fatalToStderr();
        ObedientThread thread;
        thread.start();
        thread.start();
      },
      ::testing::ExitedWithCode(1), "thread already started");
}

TEST(ThreadDeathTest, StoppingAStoppedThreadIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        testing::fatalToStderr();
        ObedientThread thread;
        thread.stop();
      },
      ::testing::ExitedWithCode(1), "stopping stopped thread");
}

}  // namespace
}  // namespace tarnlift
