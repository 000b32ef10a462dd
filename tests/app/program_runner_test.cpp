// The embedded program runner, for real: a small stand-in program is carried
// as a record, written out, started, polled, killed and deleted.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "app/program_runner.h"
#include "app/sync.h"
#include "tests/app/capture_log.h"
#include "tests/app/process_alive.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/stat.h>
#include <unistd.h>
#endif

#ifndef TARNLIFT_RUNNER_STANDIN
#error "the build names the stand-in program"
#endif

namespace tarnlift {
namespace {

using namespace app;

namespace fs = std::filesystem;

std::vector<uint8_t> readWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<uint8_t> recordOf(const std::vector<uint8_t>& content, size_t padding = 0) {
  uint32_t length = static_cast<uint32_t>(content.size());
  std::vector<uint8_t> record(4 + content.size() + padding, uint8_t(0xEE));
  for (int i = 0; i < 4; ++i) record[size_t(i)] = uint8_t(length >> (8 * i));
  std::copy(content.begin(), content.end(), record.begin() + 4);
  return record;
}

class RecordSource : public ProgramSource {
 public:
  bool findRecord(uint32_t id, const uint8_t*& record, size_t& storedSize) override {
    ++lookups;
    auto it = records.find(id);
    if (it == records.end()) return false;
    record = it->second.data();
    storedSize = it->second.size();
    return true;
  }
  std::map<uint32_t, std::vector<uint8_t>> records;
  int lookups = 0;
};

// The platform's variables naming the temporary directory.
#ifdef _WIN32
const char* const kTemporaryVariables[] = {"TMP", "TEMP"};
#else
const char* const kTemporaryVariables[] = {"TMPDIR"};
#endif

std::optional<std::string> readVariable(const char* name) {
#ifdef _WIN32
  std::vector<char> buffer(32768);
  DWORD length = GetEnvironmentVariableA(name, buffer.data(), static_cast<DWORD>(buffer.size()));
  if (length == 0 || length >= buffer.size()) return std::nullopt;
  return std::string(buffer.data(), length);
#else
  const char* value = std::getenv(name);
  if (value == nullptr) return std::nullopt;
  return std::string(value);
#endif
}

void writeVariable(const char* name, const std::optional<std::string>& value) {
#ifdef _WIN32
  SetEnvironmentVariableA(name, value ? value->c_str() : nullptr);
#else
  if (value) {
    setenv(name, value->c_str(), 1);
  } else {
    unsetenv(name);
  }
#endif
}

unsigned long processId() {
#ifdef _WIN32
  return GetCurrentProcessId();
#else
  return static_cast<unsigned long>(getpid());
#endif
}

void setTemporaryDirectory(const std::string& directory) {
  for (const char* name : kTemporaryVariables) writeVariable(name, directory);
}

bool isExecutable(const std::string& path) {
#ifdef _WIN32
  return fs::exists(path);
#else
  return access(path.c_str(), X_OK) == 0;
#endif
}

std::string standinName() {
#ifdef _WIN32
  return "standin.exe";
#else
  return "standin";
#endif
}

class ProgramRunnerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // TempDir() follows the variable the tests change: take it once.
    static const std::string kTempDir = ::testing::TempDir();
    // The process id keeps runs of this program side by side (other
    // checkouts on the same machine) out of each other's folders.
    base_ = fs::path(kTempDir) / ("runner-" + std::to_string(processId()) + "-" +
                                  ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(base_);
    fs::create_directories(base_ / "tmp");
    fs::create_directories(base_ / "work");
    tmp_ = (base_ / "tmp").string();
    for (const char* name : kTemporaryVariables) savedVariables_.push_back(readVariable(name));
    setTemporaryDirectory(tmp_);
    previous_ = fs::current_path();
    fs::current_path(base_ / "work");
    std::vector<uint8_t> program = readWhole(TARNLIFT_RUNNER_STANDIN);
    ASSERT_GT(program.size(), 1000u);
    source_.records[134] = recordOf(program, 7);
  }
  void TearDown() override {
    // The folder goes away: later tests (and the test framework's own
    // temporary files) must not be sent into it.
    for (size_t i = 0; i < savedVariables_.size(); ++i) writeVariable(kTemporaryVariables[i], savedVariables_[i]);
    fs::current_path(previous_);
    std::error_code ignored;
    fs::remove_all(base_, ignored);
  }

  std::vector<std::string> notes() const {
    std::ifstream in(base_ / "work" / "note.txt");
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
  bool waitForNotes(size_t count) const {
    for (int i = 0; i < 400; ++i) {
      if (notes().size() >= count) return true;
      sleepMilliseconds(25);
    }
    return false;
  }

  fs::path base_;
  fs::path previous_;
  std::string tmp_;
  std::vector<std::optional<std::string>> savedVariables_;
  RecordSource source_;
};

TEST_F(ProgramRunnerTest, WritesOutStartsPollsKillsAndDeletes) {
  testing::CapturedLog log;
  ProgramRunner runner(134, standinName(), &source_);
  EXPECT_FALSE(runner.isRunning());
  EXPECT_TRUE(runner.path().empty());
  EXPECT_TRUE(runner.run({"20000", "note.txt", "-s", "X:"}));
  std::string programPath = runner.path();
  EXPECT_EQ(fs::path(programPath).filename().string(), standinName());
  EXPECT_EQ(fs::path(programPath).parent_path().parent_path(), fs::path(tmp_));
  EXPECT_TRUE(log.contains("run embedded prog\n"));
  EXPECT_TRUE(log.contains("exe: " + programPath + "\n")) << log.text();
  EXPECT_TRUE(log.contains("cmdline: " + programPath + " 20000 note.txt -s X:\n")) << log.text();
  EXPECT_FALSE(log.contains("CreateProcess failed"));
  ASSERT_TRUE(isExecutable(programPath));
  // The content without the length field and without the padding.
  EXPECT_EQ(readWhole(programPath), readWhole(TARNLIFT_RUNNER_STANDIN));
  // Started in the current directory with the arguments as words.
  ASSERT_TRUE(waitForNotes(1));
  EXPECT_EQ(notes()[0], "started -s X:");
  EXPECT_TRUE(runner.isRunning());
  runner.kill();
  EXPECT_FALSE(runner.isRunning());
  EXPECT_FALSE(runner.holdsProcess());
  ASSERT_TRUE(fs::exists(programPath));
  runner.cleanUp();
  EXPECT_FALSE(fs::exists(programPath));
  EXPECT_FALSE(fs::exists(fs::path(programPath).parent_path())) << "the runner's folder goes too";
}

TEST_F(ProgramRunnerTest, AProgramThatEndsIsNoLongerRunning) {
  ProgramRunner runner(134, standinName(), &source_);
  runner.run({"0", "note.txt"});
  bool ended = false;
  for (int i = 0; i < 400 && !ended; ++i) {
    ended = !runner.isRunning();
    if (!ended) sleepMilliseconds(25);
  }
  EXPECT_TRUE(ended);
  EXPECT_EQ(notes().size(), 1u);
  std::string programPath = runner.path();
  runner.cleanUp();
  EXPECT_FALSE(fs::exists(programPath));
}

TEST_F(ProgramRunnerTest, SecondRunWhileRunningSaysSoAndStartsAnotherCopy) {
  testing::CapturedLog log;
  ProgramRunner runner(134, standinName(), &source_);
  runner.run({"1500", "note.txt", "first"});
  ASSERT_TRUE(waitForNotes(1));
  ASSERT_TRUE(runner.isRunning());
  runner.run({"20000", "note.txt", "second"});
  EXPECT_TRUE(log.contains("already running\n")) << log.text();
  ASSERT_TRUE(waitForNotes(2));
  EXPECT_EQ(notes()[1], "started second");
  EXPECT_TRUE(runner.isRunning());
  runner.cleanUp();
  EXPECT_FALSE(runner.isRunning());
}

TEST_F(ProgramRunnerTest, ASecondRunAfterTheFirstEndedIsQuiet) {
  testing::CapturedLog log;
  ProgramRunner runner(134, standinName(), &source_);
  runner.run({"0", "note.txt", "one"});
  for (int i = 0; i < 400 && runner.isRunning(); ++i) sleepMilliseconds(25);
  runner.run({"0", "note.txt", "two"});
  EXPECT_FALSE(log.contains("already running"));
  ASSERT_TRUE(waitForNotes(2));
  runner.cleanUp();
}

TEST_F(ProgramRunnerTest, TheFileIsWrittenOnlyOncePerRunner) {
  testing::CapturedLog log;
  ProgramRunner runner(134, standinName(), &source_);
  runner.run({"0", "note.txt"});
  for (int i = 0; i < 400 && runner.isRunning(); ++i) sleepMilliseconds(25);
  runner.run({"0", "note.txt"});
  for (int i = 0; i < 400 && runner.isRunning(); ++i) sleepMilliseconds(25);
  runner.run({"0", "note.txt"});
  EXPECT_EQ(source_.lookups, 1);
  std::string text = log.text();
  size_t exeLines = 0;
  for (size_t at = text.find("exe: "); at != std::string::npos; at = text.find("exe: ", at + 1)) ++exeLines;
  EXPECT_EQ(exeLines, 1u);
  ASSERT_TRUE(waitForNotes(3));
  runner.cleanUp();
  // A second runner writes its own copy again.
  ProgramRunner other(134, standinName(), &source_);
  other.run({"0", "note.txt"});
  EXPECT_EQ(source_.lookups, 2);
  other.cleanUp();
}

TEST_F(ProgramRunnerTest, AFileThatIsNoProgramFailsToStartAndSaysSo) {
  testing::CapturedLog log;
  source_.records[135] = recordOf(std::vector<uint8_t>(64, uint8_t('x')));
  ProgramRunner runner(135, standinName(), &source_);
  EXPECT_FALSE(runner.run({"-s", "X:"}));
  EXPECT_TRUE(log.contains("execute: CreateProcess failed: ")) << log.text();
  EXPECT_FALSE(runner.isRunning());
  EXPECT_FALSE(runner.holdsProcess());
  std::string programPath = runner.path();
  runner.cleanUp();
  EXPECT_FALSE(fs::exists(programPath));
}

// The program cannot be written out: the run says so ("Cannot create file")
// and fails, and nothing is started in its place.
TEST_F(ProgramRunnerTest, AFailedWriteFailsTheRunAndStartsNothing) {
  testing::CapturedLog log;
  setTemporaryDirectory((base_ / "missing").string());
  ProgramRunner runner(134, standinName(), &source_);
  EXPECT_FALSE(runner.run({"0", "note.txt"}));
  EXPECT_TRUE(log.contains("exe: ")) << log.text();
  EXPECT_TRUE(log.contains("Cannot create file\n")) << log.text();
  EXPECT_FALSE(log.contains("cmdline: ")) << log.text();
  EXPECT_FALSE(runner.isRunning());
  EXPECT_TRUE(notes().empty());
  auto started = std::chrono::steady_clock::now();
  runner.cleanUp();
  // Nothing to delete: no hundred retries.
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
}

// Each runner writes into a folder made new for it, that only this user may
// enter: two at once have two files, and whatever sits at the program's
// name in the shared temporary directory (a folder, a link) is never used.
TEST_F(ProgramRunnerTest, EachRunnerWritesIntoAFolderOfItsOwn) {
  fs::create_directories(fs::path(tmp_) / standinName() / "planted");
  std::error_code noLinks;  // Windows may refuse links to an ordinary user
  fs::create_directory_symlink(fs::path(tmp_) / standinName(), fs::path(tmp_) / "tarnlift-link", noLinks);
  ProgramRunner first(134, standinName(), &source_);
  ProgramRunner second(134, standinName(), &source_);
  EXPECT_TRUE(first.run({"20000", "note.txt", "one"}));
  EXPECT_TRUE(second.run({"20000", "note.txt", "two"}));
  ASSERT_TRUE(waitForNotes(2));
  EXPECT_NE(first.folder(), second.folder());
  for (const ProgramRunner* runner : {&first, &second}) {
    fs::path folder = fs::path(runner->path()).parent_path();
    EXPECT_EQ(folder.parent_path(), fs::path(tmp_));
    EXPECT_NE(folder.filename(), standinName());
#ifndef _WIN32
    struct stat info {};
    ASSERT_EQ(stat(folder.string().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u) << folder;
    ASSERT_EQ(lstat(runner->path().c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
#endif
  }
  std::string firstFolder = fs::path(first.path()).parent_path().string();
  first.cleanUp();
  EXPECT_FALSE(fs::exists(firstFolder));
  EXPECT_TRUE(second.isRunning()) << "the other runner's program is not touched";
  EXPECT_TRUE(fs::exists(second.path()));
  second.cleanUp();
  EXPECT_TRUE(fs::exists(fs::path(tmp_) / standinName() / "planted")) << "the planted folder is left alone";
}

// Kill ends what the program started too (a process group on Linux, a job
// object on Windows), and waits for it.
TEST_F(ProgramRunnerTest, KillEndsWhatTheProgramStarted) {
  ProgramRunner runner(134, standinName(), &source_);
  EXPECT_TRUE(runner.run({"60000", "note.txt", "--child"}));
  ASSERT_TRUE(waitForNotes(2));
  std::string childLine = notes()[0];
  ASSERT_EQ(childLine.rfind("child ", 0), 0u) << childLine;
  unsigned long child = std::stoul(childLine.substr(6));
  ASSERT_NE(child, 0u);
  EXPECT_TRUE(testing::processAlive(child));
  runner.kill();
  EXPECT_FALSE(runner.isRunning());
  EXPECT_TRUE(testing::processGone(child)) << "the program's child is left running";
  runner.cleanUp();
}

TEST_F(ProgramRunnerTest, CleanUpOfAnUnusedRunnerDoesNothing) {
  ProgramRunner runner(134, standinName(), &source_);
  runner.cleanUp();
  runner.kill();
  EXPECT_FALSE(runner.isRunning());
  EXPECT_EQ(source_.lookups, 0);
}

TEST_F(ProgramRunnerTest, TheTemporaryDirectoryEndsWithItsSeparator) {
  std::string directory = runner::temporaryDirectory();
  ASSERT_FALSE(directory.empty());
  char last = directory.back();
  EXPECT_TRUE(last == '/' || last == '\\');
}

void runMissing(ProgramSource* source) {
  testing::fatalToStderr();
  std::fflush(stdout);
  // The id goes to standard output; join it to standard error so that the
  // death test sees it.
#ifdef _WIN32
  _dup2(_fileno(stderr), _fileno(stdout));
#else
  dup2(fileno(stderr), fileno(stdout));
#endif
  ProgramRunner runner(4242, "nothing.exe", source);
  runner.run({"-s"});
}

TEST(ProgramRunnerDeathTest, AMissingIdPrintsItAndFailsWithFindResource) {
  RecordSource empty;
  EXPECT_EXIT(runMissing(&empty), ::testing::ExitedWithCode(1), "ResourceID=4242");
  EXPECT_EXIT(runMissing(&empty), ::testing::ExitedWithCode(1), "BOX\\[FindResource");
}

TEST(ProgramRunnerDeathTest, TheProgramsOwnStoreWithoutTheIdFailsTheSameWay) {
  // Windows: the test program's own resources, which hold no 4242; Linux:
  // no own store at all.
  EXPECT_EXIT(runMissing(nullptr), ::testing::ExitedWithCode(1), "ResourceID=4242");
  EXPECT_EXIT(runMissing(nullptr), ::testing::ExitedWithCode(1), "BOX\\[FindResource");
}

void runCut() {
  testing::fatalToStderr();
  RecordSource source;
  source.records[7] = {200, 0, 0, 0, 1, 2, 3};
  ProgramRunner runner(7, "cut.exe", &source);
  runner.run({});
}

TEST(ProgramRunnerDeathTest, ACutRecordIsFatal) {
  EXPECT_EXIT(runCut(), ::testing::ExitedWithCode(1), "BOX\\[LoadResource");
}

}  // namespace
}  // namespace tarnlift
