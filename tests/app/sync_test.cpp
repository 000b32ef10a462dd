#include <gtest/gtest.h>

#include <atomic>
#include <iostream>
#include <thread>

#include "app/sync.h"
#include "tests/app/capture_log.h"

namespace tarnlift {
namespace {

using namespace app;

TEST(Event, ManualResetStaysSetUntilReset) {
  Event event(true);
  EXPECT_FALSE(event.waitFor(0));
  event.set();
  EXPECT_TRUE(event.waitFor(0));
  EXPECT_TRUE(event.waitFor(0));
  event.reset();
  EXPECT_FALSE(event.waitFor(10));
}

TEST(Event, AutoResetReleasesOneWait) {
  Event event(false);
  event.set();
  EXPECT_TRUE(event.waitFor(0));
  EXPECT_FALSE(event.waitFor(10));
}

TEST(Event, PulseWakesAWaiterAndLeavesTheEventClear) {
  Event event(true);
  std::atomic<bool> waiting{false};
  std::atomic<bool> woken{false};
  std::thread waiter([&] {
    waiting = true;
    woken = event.waitFor(10000);
  });
  while (!waiting) std::this_thread::yield();
  // Pulse until the waiter is really inside its wait and wakes.
  for (int i = 0; i < 500 && !woken; ++i) {
    event.pulse();
    sleepMilliseconds(5);
  }
  waiter.join();
  EXPECT_TRUE(woken);
  EXPECT_FALSE(event.waitFor(0));
}

TEST(Event, WaitTimesOutWithFalse) {
  Event event(false);
  EXPECT_FALSE(waitOn(event, 30));
}

TEST(Mutex, OwnerMayLockAgain) {
  Mutex mutex;
  mutex.lock(100);
  mutex.lock(100);
  mutex.unlock();
  mutex.unlock();
  std::atomic<bool> taken{false};
  std::thread other([&] {
    taken = mutex.waitFor(1000);
    if (taken) mutex.unlock();
  });
  other.join();
  EXPECT_TRUE(taken);
}

TEST(Mutex, HeldElsewhereWaitTimesOut) {
  Mutex mutex;
  mutex.lock();
  std::atomic<bool> taken{true};
  std::thread other([&] { taken = mutex.waitFor(30); });
  other.join();
  EXPECT_FALSE(taken);
  mutex.unlock();
}

TEST(Mutex, OwnerMayTakeItAgain) {
  Mutex mutex;
  mutex.lock();
  EXPECT_TRUE(mutex.waitFor(0));
  mutex.unlock();
  mutex.unlock();
  std::atomic<bool> taken{false};
  std::thread other([&] {
    taken = mutex.waitFor(1000);
    if (taken) mutex.unlock();
  });
  other.join();
  EXPECT_TRUE(taken);
}

TEST(MutexDeathTest, UnlockWithoutOwningIsFatal) {
  EXPECT_EXIT(
      {
        testing::fatalToStderr();
        Mutex mutex;
        mutex.unlock();
      },
      ::testing::ExitedWithCode(1), "BOX\\[Mutex ReleaseMutex");
}

TEST(MutexDeathTest, UnlockByAnotherThreadIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        testing::fatalToStderr();
        Mutex mutex;
        mutex.lock();
        std::thread other([&] { mutex.unlock(); });
        other.join();
      },
      ::testing::ExitedWithCode(1), "BOX\\[Mutex ReleaseMutex");
}

TEST(MutexDeathTest, LockNotTakenInTimeIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Mutex mutex;
        Event held(true);
        std::thread holder([&] {
          mutex.lock();
          held.set();
          sleepMilliseconds(10000);
        });
        held.waitFor(kWaitInfinite);
        testing::fatalToStderr();
        mutex.lock(50);
        holder.join();
      },
      ::testing::ExitedWithCode(1), "Mutex wait timeouted");
}

}  // namespace
}  // namespace tarnlift
