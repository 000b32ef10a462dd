// Crash safety of the Linux settings file: a writer process that rewrites the
// settings over and over is killed with SIGKILL at random moments, many times.
// After every kill the file must read back whole, holding exactly what one of
// the writer's saves held, and never an older save than one already seen.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "app/settings_file.h"
#include "app/settings_store.h"
#include "tests/app/capture_log.h"

namespace tarnlift {
namespace {

constexpr int kKills = 1000;
const char kKeyPath[] = "SOFTWARE\\Tarnlift\\CrashTest";

// Save number n: its number, then filler whose length and bytes follow from
// n, so that any mix of two saves or a cut save is recognised.
std::string contentsOf(uint32_t n) {
  std::string text = "save " + std::to_string(n) + ":";
  size_t length = 1000 + (n * 7919u) % 60000u;
  text.reserve(text.size() + length);
  for (size_t i = 0; i < length; ++i) text.push_back(static_cast<char>('a' + (n + i) % 26));
  return text;
}

// Tells the parent through ready once the store is open, then saves forever.
[[noreturn]] void writeForever(const std::string& path, uint32_t first, int ready) {
  std::shared_ptr<SettingsStore> store = makeFileSettingsStore(path);
  uint32_t error = 0;
  std::unique_ptr<SettingsKey> key = store->openRoot(kKeyPath, error);
  if (!key || error != 0) _exit(3);
  char byte = 1;
  if (write(ready, &byte, 1) != 1) _exit(6);
  for (uint32_t n = first;; ++n) {
    std::string text = contentsOf(n);
    if (key->set("State", ValueType::String, reinterpret_cast<const uint8_t*>(text.data()), text.size()) != 0) _exit(4);
  }
}

// The save number the file holds; fails the test when it is not whole.
uint32_t readBack(const std::string& path) {
  std::shared_ptr<SettingsStore> store = makeFileSettingsStore(path);
  uint32_t error = 0;
  std::unique_ptr<SettingsKey> key = store->openRoot(kKeyPath, error);
  EXPECT_TRUE(key != nullptr && error == 0);
  if (!key) return 0;
  ValueType type = ValueType::None;
  std::vector<uint8_t> data;
  EXPECT_TRUE(key->query("State", type, data)) << "the settings were lost";
  std::string text(data.begin(), data.end());
  unsigned long number = 0;
  EXPECT_EQ(std::sscanf(text.c_str(), "save %lu:", &number), 1) << text.substr(0, 40);
  EXPECT_EQ(text, contentsOf(static_cast<uint32_t>(number))) << "save " << number << " is not whole";
  return static_cast<uint32_t>(number);
}

TEST(SettingsFileCrash, KilledWritersLeaveTheOldOrTheNewContents) {
  testing::CapturedLog log;  // a file moved aside would be logged
  std::filesystem::path directory =
      std::filesystem::path(::testing::TempDir()) / ("tl-settings-crash-" + std::to_string(getpid()));
  std::filesystem::remove_all(directory);
  std::filesystem::create_directories(directory);
  std::string path = (directory / "settings.reg").string();

  pid_t seeder = fork();
  ASSERT_GE(seeder, 0);
  if (seeder == 0) {
    std::shared_ptr<SettingsStore> store = makeFileSettingsStore(path);
    uint32_t error = 0;
    std::unique_ptr<SettingsKey> key = store->openRoot(kKeyPath, error);
    std::string text = contentsOf(1);
    _exit(key && key->set("State", ValueType::String, reinterpret_cast<const uint8_t*>(text.data()), text.size()) == 0
              ? 0
              : 5);
  }
  int status = 0;
  ASSERT_EQ(waitpid(seeder, &status, 0), seeder);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

  std::mt19937 random(12345);
  // A save (write, fsync, rename) takes a few milliseconds on a disk: the
  // kill falls anywhere within the first few saves.
  std::uniform_int_distribution<int> delayUs(0, 15000);
  uint32_t seen = readBack(path);
  int advanced = 0;
  auto began = std::chrono::steady_clock::now();
  for (int round = 0; round < kKills && !HasFailure(); ++round) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
      close(ready[0]);
      writeForever(path, seen + 1, ready[1]);
    }
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1) << "the writer could not open the settings";
    close(ready[0]);
    usleep(static_cast<useconds_t>(delayUs(random)));
    kill(writer, SIGKILL);
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself: " << status;
    uint32_t now = readBack(path);
    EXPECT_GE(now, seen) << "an older save came back";
    if (now > seen) ++advanced;
    seen = now;
  }
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  int leftovers = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    std::string name = entry.path().filename().string();
    EXPECT_EQ(name.find("unreadable"), std::string::npos) << name;
    if (name.find(".tmp.") != std::string::npos) ++leftovers;
  }
  EXPECT_FALSE(log.contains("cannot read"));
  // Many kills must land after new saves, or the test would prove little.
  EXPECT_GE(advanced, kKills / 10);
  std::printf("settings crash test: %d SIGKILLs in %.1f s, %d after new saves, %d inside a save (temporary left), "
              "last save %u, every read whole\n",
              kKills, seconds, advanced, leftovers, seen);
  std::filesystem::remove_all(directory);
}

}  // namespace
}  // namespace tarnlift
