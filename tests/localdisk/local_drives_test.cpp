// Drive rows, the choice of drives, the formatter's command lines and the
// rules of a formatter run, on fakes.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <functional>
#include <filesystem>
#include <fstream>

#include "app/program_runner.h"
#include "localdisk/local_drives.h"
#include "tests/app/capture_log.h"
#include "tests/app/private_temp.h"

namespace tarnlift::localdisk {
namespace {

class FakeEnumerator : public DriveEnumerator {
 public:
  std::vector<DriveCandidate> candidates() override { return list; }
  std::vector<DriveCandidate> list;
};

DriveCandidate root(char letter, uint32_t type, bool system = false) {
  DriveCandidate candidate;
  candidate.label = std::string(1, letter) + ":\\";
  candidate.letter = static_cast<uint8_t>(letter);
  candidate.type = type;
  candidate.system = system;
  return candidate;
}

std::vector<std::string> labels(const std::vector<install::RouterRecord>& rows) {
  std::vector<std::string> result;
  for (const install::RouterRecord& row : rows) result.push_back(row.label);
  return result;
}

TEST(LocalDrives, DriveAAndTheSystemDriveNeverAppearWhateverTheirType) {
  FakeEnumerator drives;
  drives.list = {root('A', kDriveRemovable), root('a', kDriveFixed), root('C', kDriveFixed, true),
                 root('D', kDriveRemovable, true), root('E', kDriveRemovable), root('F', kDriveFixed)};
  EXPECT_EQ(labels(listLocalDrives(drives)), (std::vector<std::string>{"E:\\", "F:\\"}));
}

TEST(LocalDrives, OpticalNetworkAndRamDrivesNeverAppear) {
  FakeEnumerator drives;
  drives.list = {root('D', kDriveCdRom), root('G', kDriveRemote),  root('R', kDriveRamDisk),
                 root('U', kDriveUnknown), root('H', kDriveFixed), root('J', 1)};
  EXPECT_EQ(labels(listLocalDrives(drives)), (std::vector<std::string>{"H:\\"}));
}

// The platform's own list, through the same rule: every drive that may be
// used is a row, in order, and nothing else. On Windows the drive of the
// system folder (named by SystemRoot) is among the roots and is marked as
// the system's, so it can never become a row.
TEST(LocalDrives, ThePlatformsListKeepsOnlyUsableDrivesAndNeverTheSystems) {
  std::unique_ptr<DriveEnumerator> enumerator = makePlatformDriveEnumerator();
  std::vector<DriveCandidate> all = enumerator->candidates();
  std::vector<std::string> usable;
  for (const DriveCandidate& candidate : all) {
    bool kind = candidate.type == kDriveRemovable || candidate.type == kDriveFixed;
    if (kind && !candidate.system && std::toupper(candidate.letter) != 'A') usable.push_back(candidate.label);
  }
  std::vector<install::RouterRecord> rows = listLocalDrives();
  EXPECT_EQ(labels(rows), usable);
  const char* systemRoot = std::getenv("SystemRoot");
  if (systemRoot == nullptr || systemRoot[0] == 0) return;
  int systemLetter = std::toupper(static_cast<unsigned char>(systemRoot[0]));
  bool seen = false;
  for (const DriveCandidate& candidate : all) {
    if (std::toupper(candidate.letter) != systemLetter) continue;
    seen = true;
    EXPECT_TRUE(candidate.system) << candidate.label;
  }
  EXPECT_TRUE(seen) << "no root for " << systemRoot;
  for (const install::RouterRecord& row : rows) EXPECT_NE(std::toupper(row.mac[5]), systemLetter) << row.label;
}

TEST(LocalDrives, RowsKeepThePlatformsOrderAndLookLikeFreshRows) {
  FakeEnumerator drives;
  drives.list = {root('G', kDriveFixed), root('E', kDriveRemovable)};
  std::vector<install::RouterRecord> rows = listLocalDrives(drives);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].label, "G:\\");
  EXPECT_EQ(install::macText(rows[0].mac), "FF:FF:FF:FF:FF:47");
  EXPECT_EQ(rows[1].driveType, kDriveRemovable);
  EXPECT_EQ(rows[1].kind, install::kKindDrive);
  EXPECT_TRUE(isDriveRow(rows[1]));
  EXPECT_EQ(driveIdOf(rows[1]).letter, 'E');
  EXPECT_EQ(driveIdOf(rows[1]).path, "E:\\");
  install::RouterRecord fresh;
  EXPECT_EQ(rows[1].progress, 0u);
  EXPECT_EQ(rows[1].totalSize, 0u);
  EXPECT_TRUE(rows[1].files.empty());
  EXPECT_EQ(rows[1].status, fresh.status);
  EXPECT_EQ(rows[1].keepBranding, fresh.keepBranding);
  EXPECT_EQ(rows[1].baudRate, 0u);
}

TEST(LocalDrives, ARouterRowIsNoDriveRow) {
  install::RouterRecord router;
  router.mac = net::MacAddress{0xFF, 0xFF, 0xFF, 0xFF, 0xFE, 0x45};
  EXPECT_FALSE(isDriveRow(router));
}

TEST(LocalDrives, TheTypeTexts) {
  EXPECT_EQ(driveTypeText(kDriveRemovable), "removable");
  EXPECT_EQ(driveTypeText(kDriveFixed), "fixed");
  EXPECT_EQ(driveTypeText(9), "9");
}

TEST(LocalDrives, FileSizeOfAFileAndOfNone) {
  std::string path = tarnlift::testing::privateTempPath("tl-filesize.bin");
  {
    std::ofstream out(path, std::ios::binary);
    out << std::string(1234, 'x');
  }
  EXPECT_EQ(fileSize(path), 1234);
  std::filesystem::remove(path);
  EXPECT_EQ(fileSize(path), -1);
  EXPECT_EQ(fileSize(""), -1);
}

TEST(FormatterCommand, TheNtFamilyFormatsFat32WithTheLabel) {
  FormatterCommand command = windowsFormatterCommand(true, "C:\\WINDOWS\\system32", "", 'E', "y", true);
  EXPECT_EQ(command.program, "C:\\WINDOWS\\system32\\format.com");
  EXPECT_EQ(command.commandLine(), "C:\\WINDOWS\\system32\\format.com E: /FS:FAT32 /Q /X /V:y");
  EXPECT_EQ(command.answers, (std::vector<std::string>{"\r\n", "y\r\n"}));
}

TEST(FormatterCommand, WithoutFat32TheNtFamilyAsksForFat) {
  FormatterCommand command = windowsFormatterCommand(true, "C:\\WINDOWS\\system32", "", 'F', "y", false);
  EXPECT_EQ(command.commandLine(), "C:\\WINDOWS\\system32\\format.com F: /FS:FAT /Q /X /V:y");
}

TEST(FormatterCommand, TheOlderFamilyHasAFixedLabelAndNoFileSystem) {
  FormatterCommand command = windowsFormatterCommand(false, "C:\\WINDOWS\\SYSTEM", "C:\\WINDOWS", 'E', "y", true);
  EXPECT_EQ(command.program, "C:\\WINDOWS\\Command\\format.com");
  EXPECT_EQ(command.commandLine(), "C:\\WINDOWS\\Command\\format.com E: /Q /V:xxx");
  EXPECT_EQ(command.answers.back(), "y\r\n");
}

TEST(FormatterCommand, LinuxFormatsTheWholeDiskAsFat32WithTheLabel) {
  FormatterCommand command = linuxFormatterCommand("/usr/sbin/mkfs.fat", "/dev/sdb", "y", true);
  EXPECT_EQ(command.program, "/usr/sbin/mkfs.fat");
  EXPECT_EQ(command.commandLine(), "/usr/sbin/mkfs.fat -F 32 -I -n y /dev/sdb");
  EXPECT_TRUE(command.answers.empty());
  EXPECT_EQ(linuxFormatterCommand("mkfs.fat", "disk.img", "y", false).commandLine(), "mkfs.fat -I -n y disk.img");
}

TEST(FormatterCommand, ATargetWithBlanksStaysOneArgument) {
  FormatterCommand command = linuxFormatterCommand("/usr/sbin/mkfs.fat", "/srv/my disks/disk one.img", "y", true);
  EXPECT_EQ(command.arguments,
            (std::vector<std::string>{"-F", "32", "-I", "-n", "y", "/srv/my disks/disk one.img"}));
  // Quoted for the log and for a Windows command line.
  EXPECT_EQ(command.commandLine(), "/usr/sbin/mkfs.fat -F 32 -I -n y \"/srv/my disks/disk one.img\"");
}

TEST(CommandLine, QuotesOnlyWhatNeedsItAsTheRuntimeReadsIt) {
  EXPECT_EQ(app::commandLineOf("C:\\a\\p.exe", {"-s", "E:"}), "C:\\a\\p.exe -s E:");
  EXPECT_EQ(app::commandLineOf("C:\\Program Files\\p.exe", {""}), "\"C:\\Program Files\\p.exe\" \"\"");
  EXPECT_EQ(app::commandLineOf("p", {"say \"hi\""}), "p \"say \\\"hi\\\"\"");
  EXPECT_EQ(app::commandLineOf("p", {"dir with blank\\"}), "p \"dir with blank\\\\\"");
}

// A formatter over a clock that moves only while it is waited for: each wait
// takes the time asked (or ends the formatter after `endsAfterMs`), and each
// poll's output comes from `outputs` in turn.
class FakeProcess : public FormatterProcess {
 public:
  explicit FakeProcess(app::ManualClock& clock) : clock_(clock) {}
  bool createPipes() override { return pipes; }
  bool start(const std::string& program, const std::vector<std::string>& arguments) override {
    started = program;
    for (const std::string& word : arguments) started += "|" + word;
    return starts;
  }
  void writeInput(const std::string& text) override { input += text; }
  std::string takeOutput() override {
    logAtTake.push_back(logSoFar ? logSoFar() : std::string());
    if (outputs.empty()) return {};
    std::string text = outputs.front();
    outputs.erase(outputs.begin());
    return text;
  }
  Wait waitFor(uint32_t milliseconds) override {
    waits.push_back(milliseconds);
    if (failWait) return Wait::Failed;
    uint64_t elapsed = waited_ + milliseconds;
    if (endsAfterMs >= 0 && elapsed >= static_cast<uint64_t>(endsAfterMs)) {
      clock_.advanceMillis(static_cast<uint64_t>(endsAfterMs) - waited_);
      waited_ = static_cast<uint64_t>(endsAfterMs);
      return Wait::Ended;
    }
    clock_.advanceMillis(milliseconds);
    waited_ = elapsed;
    return Wait::TimedOut;
  }
  bool terminate() override {
    ++terminations;
    return terminates;
  }
  void close() override { ++closes; }
  uint64_t waitedMs() const { return waited_; }

  bool pipes = true;
  bool starts = true;
  bool terminates = true;
  bool failWait = false;
  int64_t endsAfterMs = 250;  // -1: never
  std::vector<std::string> outputs{"Insert new disk for drive E:\r\n", "Format complete.\r\n"};
  std::function<std::string()> logSoFar;
  std::vector<std::string> logAtTake;
  std::string started;
  std::string input;
  std::vector<uint32_t> waits;
  int terminations = 0;
  int closes = 0;

 private:
  app::ManualClock& clock_;
  uint64_t waited_ = 0;
};

FormatterCommand exampleCommand() {
  return windowsFormatterCommand(true, "C:\\WINDOWS\\system32", "", 'E', "y", true);
}

TEST(RunFormatter, AnswersTheQuestionsLogsTheOutputLineByLineAndWaitsForTheEnd) {
  app::ManualClock clock;
  FakeProcess process(clock);
  tarnlift::testing::CapturedLog log;
  EXPECT_TRUE(runFormatter(process, exampleCommand(), clock));
  EXPECT_EQ(process.started, "C:\\WINDOWS\\system32\\format.com|E:|/FS:FAT32|/Q|/X|/V:y");
  EXPECT_EQ(process.input, "\r\ny\r\n");
  EXPECT_EQ(log.text(),
            "app: C:\\WINDOWS\\system32\\format.com\n"
            "cmd: C:\\WINDOWS\\system32\\format.com E: /FS:FAT32 /Q /X /V:y\n"
            "format before\n"
            "Insert new disk for drive E:\n"
            "Format complete.\n"
            "format done\n");
  EXPECT_EQ(process.closes, 1);
  EXPECT_EQ(process.waitedMs(), 250u);
}

TEST(RunFormatter, EachLineIsLoggedAsItComesNotAtTheEnd) {
  app::ManualClock clock;
  FakeProcess process(clock);
  process.endsAfterMs = 1000;
  process.outputs = {"mkfs.fat 4.2\nhalf a ", "line\r\n", "", "last line without end"};
  tarnlift::testing::CapturedLog log;
  process.logSoFar = [&log] { return log.text(); };
  EXPECT_TRUE(runFormatter(process, exampleCommand(), clock));
  ASSERT_GE(process.logAtTake.size(), 3u);
  // At the second poll the first line is in the log already, the half line
  // is not; at the third the joined line is.
  EXPECT_NE(process.logAtTake[1].find("mkfs.fat 4.2\n"), std::string::npos);
  EXPECT_EQ(process.logAtTake[1].find("half a"), std::string::npos);
  EXPECT_NE(process.logAtTake[2].find("half a line\n"), std::string::npos);
  EXPECT_TRUE(log.contains("last line without end\nformat done\n")) << log.text();
}

TEST(RunFormatter, AFormatterThatEndsWithAnErrorStillCounts) {
  app::ManualClock clock;
  FakeProcess process(clock);
  process.outputs = {"Invalid media or Track 0 bad - disk unusable."};
  EXPECT_TRUE(runFormatter(process, exampleCommand(), clock));
}

TEST(RunFormatter, PipesThatCannotBeMadeFail) {
  app::ManualClock clock;
  FakeProcess process(clock);
  process.pipes = false;
  tarnlift::testing::CapturedLog log;
  EXPECT_FALSE(runFormatter(process, exampleCommand(), clock));
  EXPECT_EQ(log.text(), "Cannot create pipe\n");
  EXPECT_TRUE(process.started.empty());
}

TEST(RunFormatter, AFormatterThatCannotStartFails) {
  app::ManualClock clock;
  FakeProcess process(clock);
  process.starts = false;
  tarnlift::testing::CapturedLog log;
  EXPECT_FALSE(runFormatter(process, exampleCommand(), clock));
  EXPECT_TRUE(log.contains("format before\nCannot start format\n")) << log.text();
  EXPECT_EQ(process.closes, 1);
  EXPECT_TRUE(process.input.empty());
}

// Five minutes in all, counted from the start: a formatter that never says
// a word is ended when they are over, not five minutes after its first
// word (which never comes).
TEST(RunFormatter, FiveMinutesInAllFromTheStartThenTheFormatterIsEnded) {
  app::ManualClock clock;
  FakeProcess process(clock);
  process.endsAfterMs = -1;
  process.outputs.clear();
  tarnlift::testing::CapturedLog log;
  uint64_t start = clock.nowMicros();
  EXPECT_FALSE(runFormatter(process, exampleCommand(), clock));
  EXPECT_EQ(clock.nowMicros() - start, 300000u * 1000u);
  EXPECT_EQ(process.waitedMs(), 300000u);
  for (uint32_t wait : process.waits) EXPECT_LE(wait, kFormatPollMs);
  EXPECT_TRUE(log.contains("format timeout\n"));
  EXPECT_FALSE(log.contains("even TerminateProcess failed"));
  EXPECT_FALSE(log.contains("format done"));
  EXPECT_EQ(process.terminations, 1);
  EXPECT_EQ(process.closes, 1);
}

TEST(RunFormatter, TheLimitIsTheOneGiven) {
  app::ManualClock clock;
  FakeProcess process(clock);
  process.endsAfterMs = -1;
  EXPECT_FALSE(runFormatter(process, exampleCommand(), clock, 1234));
  EXPECT_EQ(process.waitedMs(), 1234u);
}

TEST(RunFormatter, AFormatterThatCannotEvenBeTerminatedIsLogged) {
  app::ManualClock clock;
  FakeProcess process(clock);
  process.endsAfterMs = -1;
  process.terminates = false;
  tarnlift::testing::CapturedLog log;
  EXPECT_FALSE(runFormatter(process, exampleCommand(), clock, 500));
  EXPECT_TRUE(log.contains("format timeout\neven TerminateProcess failed\n"));
}

TEST(RunFormatter, AStopEndsTheFormatterAtOnce) {
  app::ManualClock clock;
  FakeProcess process(clock);
  process.endsAfterMs = -1;
  app::Event stop(true);
  stop.set();
  tarnlift::testing::CapturedLog log;
  EXPECT_FALSE(runFormatter(process, exampleCommand(), clock, kFormatTimeoutMs, &stop));
  EXPECT_TRUE(log.contains("format stopped\n")) << log.text();
  EXPECT_EQ(process.terminations, 1);
  EXPECT_EQ(process.closes, 1);
  EXPECT_FALSE(log.contains("format done"));
}

TEST(RunFormatterDeathTest, AFailedWaitIsFatal) {
  EXPECT_EXIT(
      {
        tarnlift::testing::fatalToStderr();
        app::ManualClock clock;
        FakeProcess process(clock);
        process.failWait = true;
        runFormatter(process, exampleCommand(), clock);
      },
      ::testing::ExitedWithCode(1), "BOX\\[Format failed");
}

}  // namespace
}  // namespace tarnlift::localdisk
