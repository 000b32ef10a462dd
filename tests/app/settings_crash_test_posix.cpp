// Crash safety of the Linux settings file: a writer process that rewrites the
// settings over and over is killed with SIGKILL at random moments, many times.
// After every kill the file must read back whole, holding exactly what one of
// the writer's saves held, and never an older save than one already seen.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "app/atomic_file.h"
#include "app/settings_file.h"
#include "app/settings_store.h"
#include "tests/app/capture_log.h"

namespace tarnlift {
namespace {

using namespace app;

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

// Tells the parent through ready once the store is open ('r') and after
// every save ('s'), and saves forever.
[[noreturn]] void writeForever(const std::string& path, uint32_t first, int ready) {
  std::shared_ptr<SettingsStore> store = makeFileSettingsStore(path);
  uint32_t error = 0;
  std::unique_ptr<SettingsKey> key = store->openRoot(kKeyPath, error);
  if (!key || error != 0) _exit(3);
  char byte = 'r';
  if (write(ready, &byte, 1) != 1) _exit(6);
  for (uint32_t n = first;; ++n) {
    std::string text = contentsOf(n);
    if (key->set("State", ValueType::String, reinterpret_cast<const uint8_t*>(text.data()), text.size()) != 0) _exit(4);
    byte = 's';
    if (write(ready, &byte, 1) != 1) _exit(6);
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
  // Half the kills come right after the writer opened the settings, half
  // after its first save; each then waits a random part of what a save
  // takes here (write, fsync, rename), so kills fall before, inside and
  // after saves whatever the machine's speed.
  std::bernoulli_distribution afterASave(0.5);
  int64_t saveUs = 5000;
  uint32_t seen = readBack(path);
  int advanced = 0;
  int insideSave = 0;
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
    if (afterASave(random)) {
      auto before = std::chrono::steady_clock::now();
      EXPECT_EQ(read(ready[0], &byte, 1), 1);
      saveUs = std::max<int64_t>(
          100, std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - before).count());
    }
    usleep(static_cast<useconds_t>(std::uniform_int_distribution<int64_t>(0, saveUs)(random)));
    kill(writer, SIGKILL);
    close(ready[0]);
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself: " << status;
    if (std::filesystem::exists(path + ".tmp." + std::to_string(writer))) ++insideSave;
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
  // Reading the settings again cleared what the killed writers left behind,
  // but never the temporary of a writer that is still running.
  EXPECT_EQ(leftovers, 0);
  std::string ours = temporaryPathFor(path);
  { std::ofstream(ours) << "a save in progress"; }
  readBack(path);
  EXPECT_TRUE(std::filesystem::exists(ours));
  // Many kills must land after new saves, or the test would prove little.
  EXPECT_GE(advanced, kKills / 4);
  std::printf("settings crash test: %d SIGKILLs in %.1f s, %d after new saves, %d inside a save (temporary left "
              "and cleared at the next read), last save %u, every read whole\n",
              kKills, seconds, advanced, insideSave, seen);
  std::filesystem::remove_all(directory);
}

}  // namespace
}  // namespace tarnlift
