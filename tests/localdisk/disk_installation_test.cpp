// The disk installation's steps, status texts, failures, log lines and
// progress, on fakes.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "localdisk/disk_installation.h"
#include "tests/app/capture_log.h"
#include "tests/app/private_temp.h"
#include "tests/localdisk/fake_disk.h"

namespace tarnlift::localdisk {
namespace {

namespace fs = std::filesystem;
using namespace localdisk::testing;

std::string tempDir() {
  fs::path dir = tarnlift::testing::privateTempPath(
      "tl-disk-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir.string();
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary);
  out << content;
}

// Captures standard error (where "Cannot create file" of the boot image
// step goes) for the length of a test.
class CapturedErr {
 public:
  CapturedErr() : previous_(std::cerr.rdbuf(stream_.rdbuf())) {}
  ~CapturedErr() { std::cerr.rdbuf(previous_); }
  std::string text() const { return stream_.str(); }

 private:
  std::ostringstream stream_;
  std::streambuf* previous_;
};

class DiskInstallationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = tempDir();
    store_.add(kImageDiskKernel, "KERNEL-BYTES");
    store_.add(kImageDiskInitrd, "INITRD-BYTES-GZ");
    store_.add(kImageDiskSyslinuxConfig, "default linux\n");
    netboot::setBootImageStore(&store_);
    for (size_t i = 0; i < 512; ++i) disk_.bytes[i] = static_cast<uint8_t>(i * 3 + 1);
    disk_.bytes[510] = 0x55;
    disk_.bytes[511] = 0xAA;
    writeFile(dir_ + "/system-1.npk", std::string(1000, 's'));
    writeFile(dir_ + "/extra-1.npk", std::string(300, 'e'));
    writeFile(dir_ + "/config.rsc", "/ip address add address=10.0.0.1/24 interface=ether1\n");
    writeFile(dir_ + "/mode.rsc", "/system mode\n");
    services_.devices = &access_;
    services_.formatter = &formatter_;
    services_.files = &files_;
    services_.sources = &sources_;
    services_.makeBootLoaderRunner = [this] { return std::make_unique<FakeRunner>(runner_); };
    row_ = makeDriveRow("E:\\", 'E', kDriveRemovable);
    row_.packageDir = dir_;
    row_.files = {"system-1.npk", "extra-1.npk"};
    row_.totalSize = 1300;
    row_.scriptEnabled = true;
    row_.scriptPath = dir_ + "/config.rsc";
    row_.baudRate = 115200;
    row_.modeScriptEnabled = true;
    row_.modeScriptPath = dir_ + "/mode.rsc";
  }
  void TearDown() override {
    netboot::setBootImageStore(nullptr);
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }

  // Runs the installation on this thread; the notifications in order.
  std::vector<DiskStatus> install(bool expectSuccess) {
    DiskInstallation installation(row_, &services_);
    EXPECT_EQ(installation.install(), expectSuccess);
    final_ = installation.status();
    std::vector<DiskStatus> news;
    for (DiskStatus status; installation.nextNotification(status);) news.push_back(status);
    return news;
  }
  std::string failure() {
    install(false);
    return final_.errorText;
  }
  std::string oldSector() const { return std::string(disk_.bytes.begin(), disk_.bytes.begin() + 512); }
  bool sectorZero() const {
    for (size_t i = 0; i < 512; ++i) {
      if (disk_.bytes[i] != 0) return false;
    }
    return true;
  }
  bool journalHas(const std::string& entry) const {
    for (const std::string& e : disk_.journal) {
      if (e == entry) return true;
    }
    return false;
  }

  std::string dir_;
  FakeStore store_;
  FakeDisk disk_;
  FakeVolume volume_;
  FakeDiskAccess access_{disk_};
  FakeFormatter formatter_{volume_};
  FakeVolumeFiles files_{volume_};
  FakeSourceFiles sources_;
  FakeRunnerLog runner_;
  DiskServices services_;
  install::RouterRecord row_;
  DiskStatus final_;
};

TEST_F(DiskInstallationTest, CreationSaysPreparing) {
  DiskInstallation installation(row_, &services_);
  DiskStatus status;
  ASSERT_TRUE(installation.nextNotification(status));
  EXPECT_EQ(status.state, 4u);
  EXPECT_EQ(status.statusText, "Preparing for installation...");
  EXPECT_EQ(status.total, 1300u);
  EXPECT_FALSE(installation.nextNotification(status));
  EXPECT_EQ(installation.name(), "Unnamed");
}

TEST_F(DiskInstallationTest, AWholeInstallationWritesEveryFileAndCountsBytes) {
  std::string saved = oldSector();
  tarnlift::testing::CapturedLog log;
  std::vector<DiskStatus> news = install(true);
  // Sector 0 was saved into "mbr" and cleared.
  EXPECT_TRUE(sectorZero());
  EXPECT_EQ(volume_.files["mbr"], saved);
  EXPECT_EQ(volume_.files["linux"], "KERNEL-BYTES");
  EXPECT_EQ(volume_.files["initrd.rgz"], "INITRD-BYTES-GZ");
  EXPECT_EQ(volume_.files["syslinux.cfg"], "default linux\n");
  EXPECT_EQ(volume_.files["system-1.npk"], std::string(1000, 's'));
  EXPECT_EQ(volume_.files["extra-1.npk"], std::string(300, 'e'));
  EXPECT_EQ(volume_.files["autorun.scr"],
            "/ip address add address=10.0.0.1/24 interface=ether1\n"
            "\n/port set [/port find] baud-rate=115200\n");
  EXPECT_EQ(volume_.files["mode.scr"], "/system mode\n");
  EXPECT_EQ(volume_.files.size(), 8u);
  // The formatter with the label "y" as FAT32, once.
  EXPECT_EQ(formatter_.calls, (std::vector<std::string>{"E y FAT32"}));
  // The boot loader's installer with "-s" and the drive, polled.
  EXPECT_EQ(runner_.arguments, (std::vector<std::string>{"-s E:"}));
  EXPECT_TRUE(log.contains("still syslinux\nstill syslinux\n")) << log.text();
  EXPECT_EQ(runner_.cleanUps, 1);
  EXPECT_TRUE(log.contains("device number: 3\n"));
  EXPECT_TRUE(log.contains("partition number: 1\n"));
  // The device steps in order, all through the drive held from step 2 to
  // the end; the formatter gets it lent and gives it back.
  std::vector<std::string> expected{"hold E",          "open volume E",     "volume device number", "volume close",
                                    "open physical 3", "physical seek 0",   "physical read 512",    "physical seek 0",
                                    "physical write 512", "physical close", "lend",                 "take back",
                                    "open volume E",   "volume close",      "let go"};
  EXPECT_EQ(disk_.journal, expected);
  // The drive was looked at again before each step: sector 0, format, boot
  // files, boot loader, each package, scripts, flush.
  EXPECT_EQ(disk_.looks, 8);
  // Status texts, in order, with the progress counting copied bytes.
  std::vector<std::string> texts;
  for (const DiskStatus& s : news) texts.push_back(s.statusText + "|" + std::to_string(s.progress));
  EXPECT_EQ(texts, (std::vector<std::string>{"Preparing for installation...|0", "Formatting drive...|0",
                                             "Copying system files...|0", "Copying file: system-1.npk|0",
                                             "Copying file: extra-1.npk|1000", "Installation completed|1300"}));
  EXPECT_EQ(news.back().state, 2u);
  EXPECT_EQ(final_.state, 2u);
  EXPECT_EQ(final_.progress, 1300u);
  // The boot files come before the installer, the packages after it.
  std::vector<std::string> order;
  for (const std::string& e : volume_.journal) {
    if (e.rfind("create ", 0) == 0 || e.rfind("copy ", 0) == 0) order.push_back(e);
  }
  EXPECT_EQ(order, (std::vector<std::string>{"create linux", "create initrd.rgz", "create syslinux.cfg", "create mbr",
                                             "copy system-1.npk", "copy extra-1.npk", "create autorun.scr",
                                             "copy mode.scr"}));
}

TEST_F(DiskInstallationTest, AnUnknownDriveLetterFailsBeforeAnythingIsWritten) {
  disk_.missingVolumes.insert('Q');
  row_ = makeDriveRow("Q:\\", 'Q', kDriveFixed);
  std::string saved = oldSector();
  EXPECT_EQ(failure(), "Cannot open device");
  EXPECT_EQ(oldSector(), saved);
  EXPECT_TRUE(formatter_.calls.empty());
  EXPECT_TRUE(volume_.journal.empty());
  EXPECT_EQ(disk_.journal, (std::vector<std::string>{"hold Q"}));
  EXPECT_EQ(final_.state, 4u) << "the thread body sets the failed state";
}

TEST_F(DiskInstallationTest, APhysicalDriveThatCannotBeOpenedFails) {
  disk_.physicalFails = true;
  EXPECT_EQ(failure(), "Cannot open physical device");
  EXPECT_FALSE(sectorZero());
}

TEST_F(DiskInstallationTest, AFailedFirstSeekFails) {
  disk_.seekFailsAt = 0;
  EXPECT_EQ(failure(), "Cannot seek physical device");
}

TEST_F(DiskInstallationTest, AShortReadOfSectorZeroFails) {
  disk_.shortRead = 100;
  EXPECT_EQ(failure(), "Cannot seek read device");
  EXPECT_FALSE(sectorZero());
}

TEST_F(DiskInstallationTest, AFailedSecondSeekCannotClearSectorZero) {
  disk_.seekFailsAt = 1;
  EXPECT_EQ(failure(), "Cannot MBR on device");
  EXPECT_FALSE(sectorZero());
}

TEST_F(DiskInstallationTest, AShortWriteCannotClearSectorZero) {
  disk_.shortWrite = 511;
  EXPECT_EQ(failure(), "Cannot MBR on device");
  EXPECT_TRUE(formatter_.calls.empty());
}

TEST(DiskInstallationDeathTest, AShortDeviceNumberAnswerIsFatal) {
  EXPECT_EXIT(
      {
        tarnlift::testing::fatalToStderr();
        FakeDisk disk;
        disk.deviceNumberAnswer = 8;
        FakeVolume volume;
        FakeDiskAccess access(disk);
        DiskServices services;
        services.devices = &access;
        DiskInstallation installation(makeDriveRow("E:\\", 'E', kDriveFixed), &services);
        installation.install();
      },
      ::testing::ExitedWithCode(1), "BOX\\[IOCTL_GET_DEVICE_NUMBER failed");
}

TEST_F(DiskInstallationTest, AFailedFormatFails) {
  formatter_.failAt = 1;
  EXPECT_EQ(failure(), "Cannot format device");
  // Once step 6 has run, sector 0 stays cleared.
  EXPECT_TRUE(sectorZero());
  EXPECT_TRUE(volume_.files.empty());
}

TEST_F(DiskInstallationTest, SystemsThatNeedItFormatTwice) {
  formatter_.twice = true;
  install(true);
  EXPECT_EQ(formatter_.calls, (std::vector<std::string>{"E y FAT32", "E y FAT32"}));
}

TEST_F(DiskInstallationTest, AFailedSecondFormatFailsTheSameWay) {
  formatter_.twice = true;
  formatter_.failAt = 2;
  EXPECT_EQ(failure(), "Cannot format device");
}

TEST_F(DiskInstallationTest, ABootFileThatCannotBeCreatedFailsAndSaysSo) {
  volume_.failCreate.insert("initrd.rgz");
  CapturedErr err;
  EXPECT_EQ(failure(), "Cannot copy system files");
  EXPECT_NE(err.text().find("Cannot create file"), std::string::npos);
  EXPECT_EQ(volume_.files.count("syslinux.cfg"), 0u) << "the first failure ends it";
}

TEST_F(DiskInstallationTest, AnMbrLeftFromAnEarlierRunFailsStepTen) {
  formatter_.empties = false;
  volume_.files["mbr"] = "old";
  tarnlift::testing::CapturedLog log;
  EXPECT_EQ(failure(), "Cannot copy system files");
  EXPECT_EQ(volume_.files["mbr"], "old");
  EXPECT_EQ(volume_.files["linux"], "KERNEL-BYTES");
  EXPECT_TRUE(log.contains("Cannot create file\n"));
  EXPECT_TRUE(runner_.arguments.empty());
}

TEST(DiskInstallationDeathTest, AMissingKernelRecordIsFatal) {
  EXPECT_EXIT(
      {
        tarnlift::testing::fatalToStderr();
        FakeStore store;
        netboot::setBootImageStore(&store);
        FakeDisk disk;
        FakeVolume volume;
        FakeDiskAccess access(disk);
        FakeFormatter formatter(volume);
        FakeVolumeFiles files(volume);
        DiskServices services;
        services.devices = &access;
        services.formatter = &formatter;
        services.files = &files;
        DiskInstallation installation(makeDriveRow("E:\\", 'E', kDriveFixed), &services);
        installation.install();
      },
      ::testing::ExitedWithCode(1), "BOX\\[FindResource");
}

TEST_F(DiskInstallationTest, AMissingPackageEndsWithCannotGetPackageSize) {
  row_.files = {"system-1.npk", "gone-1.npk"};
  tarnlift::testing::CapturedLog log;
  EXPECT_EQ(failure(), "Cannot get package size");
  EXPECT_TRUE(log.contains("Cannot open file\n"));
  EXPECT_EQ(runner_.cleanUps, 1) << "the installer's resources are released";
  EXPECT_EQ(volume_.files.count("autorun.scr"), 0u);
}

TEST_F(DiskInstallationTest, APackageWhoseSizeCannotBeTakenEnds) {
  sources_.codes[dir_ + "/extra-1.npk"] = 2;
  sources_.codes[dir_ + "\\extra-1.npk"] = 2;
  tarnlift::testing::CapturedLog log;
  EXPECT_EQ(failure(), "Cannot get package size");
  EXPECT_TRUE(log.contains("Cannot get file size\n"));
  EXPECT_EQ(runner_.cleanUps, 1);
}

TEST_F(DiskInstallationTest, APackageThatCannotBeCopiedEnds) {
  volume_.failCopy.insert("extra-1.npk");
  EXPECT_EQ(failure(), "Cannot copy packages");
  EXPECT_EQ(runner_.cleanUps, 1);
}

TEST_F(DiskInstallationTest, AnAutorunScriptAlreadyThereFailsTheConfigStep) {
  volume_.failCreate.insert("autorun.scr");
  EXPECT_EQ(failure(), "Cannot copy config");
  EXPECT_EQ(runner_.cleanUps, 1);
}

TEST_F(DiskInstallationTest, AnUnreadableScriptFailsTheConfigStep) {
  row_.scriptPath = dir_ + "/missing.rsc";
  tarnlift::testing::CapturedLog log;
  EXPECT_EQ(failure(), "Cannot copy config");
  EXPECT_TRUE(log.contains("Cannot open script\n"));
}

TEST_F(DiskInstallationTest, AShortScriptWriteFailsTheConfigStep) {
  volume_.shortWrite.insert("autorun.scr");
  EXPECT_EQ(failure(), "Cannot copy config");
}

TEST_F(DiskInstallationTest, AScriptLongerThanOnePieceIsCopiedWhole) {
  std::string big;
  for (int i = 0; i < 1000; ++i) big += "/log info line" + std::to_string(i) + "\n";
  ASSERT_GT(big.size(), 3u * 4096u);
  writeFile(row_.scriptPath, big);
  row_.baudRate = 0;
  install(true);
  EXPECT_EQ(volume_.files["autorun.scr"], big);
}

TEST_F(DiskInstallationTest, AModeScriptThatCannotBeCopiedFails) {
  volume_.failCopy.insert("mode.scr");
  EXPECT_EQ(failure(), "Cannot copy mode script");
  EXPECT_EQ(runner_.cleanUps, 1);
}

TEST_F(DiskInstallationTest, AModeScriptWithAnEmptyPathIsSkipped) {
  row_.modeScriptPath.clear();
  install(true);
  EXPECT_EQ(volume_.files.count("mode.scr"), 0u);
}

TEST_F(DiskInstallationTest, NoModeScriptChosenWritesNone) {
  row_.modeScriptEnabled = false;
  install(true);
  EXPECT_EQ(volume_.files.count("mode.scr"), 0u);
}

TEST_F(DiskInstallationTest, AVolumeThatCannotBeOpenedAtTheEndFails) {
  disk_.volumeOpensOnce = true;
  EXPECT_EQ(failure(), "Cannot open device");
  EXPECT_EQ(runner_.cleanUps, 1);
  EXPECT_EQ(volume_.files.count("autorun.scr"), 1u);
}

TEST_F(DiskInstallationTest, AnEmptyPackageListStillMakesABootableDriveWithAutorun) {
  row_.files.clear();
  row_.totalSize = 0;
  std::vector<DiskStatus> news = install(true);
  EXPECT_EQ(volume_.files.count("autorun.scr"), 1u);
  EXPECT_EQ(volume_.files.count("linux"), 1u);
  EXPECT_EQ(runner_.arguments.size(), 1u);
  EXPECT_EQ(news.back().statusText, "Installation completed");
}

TEST_F(DiskInstallationTest, ABaudRateOfZeroLeavesOnlyTheScript) {
  row_.baudRate = 0;
  install(true);
  EXPECT_EQ(volume_.files["autorun.scr"], "/ip address add address=10.0.0.1/24 interface=ether1\n");
}

TEST_F(DiskInstallationTest, NoScriptAndNoBaudRateGiveAnEmptyAutorun) {
  row_.baudRate = 0;
  row_.scriptEnabled = false;
  install(true);
  ASSERT_EQ(volume_.files.count("autorun.scr"), 1u);
  EXPECT_EQ(volume_.files["autorun.scr"], "");
}

TEST_F(DiskInstallationTest, OnlyABaudRateGivesOnlyItsLine) {
  row_.scriptEnabled = false;
  row_.baudRate = 9600;
  install(true);
  EXPECT_EQ(volume_.files["autorun.scr"], "\n/port set [/port find] baud-rate=9600\n");
}

TEST_F(DiskInstallationTest, TheThreadFailsLogsAndWaitsForItsStopEvent) {
  disk_.missingVolumes.insert('E');
  tarnlift::testing::CapturedLog log;
  DiskInstallation installation(row_, &services_);
  installation.start();
  DiskStatus status;
  for (int i = 0; i < 400 && installation.status().state == 4; ++i) app::sleepMilliseconds(10);
  status = installation.status();
  EXPECT_EQ(status.state, 3u);
  EXPECT_EQ(status.errorText, "Cannot open device");
  EXPECT_FALSE(installation.isFinished()) << "it waits for the stop event";
  installation.stopEvent().set();
  EXPECT_TRUE(installation.waitFor(5000));
  EXPECT_TRUE(log.contains("failed: Cannot open device\n")) << log.text();
  std::vector<uint32_t> states;
  while (installation.nextNotification(status)) states.push_back(status.state);
  EXPECT_EQ(states.back(), 3u);
}

TEST_F(DiskInstallationTest, TheWindowsHolderStartsPollsAndCancels) {
  LocalDiskInstaller installer(&services_);
  DiskStatus status;
  EXPECT_FALSE(installer.news(row_.mac, status));
  installer.start(row_);
  EXPECT_TRUE(installer.holds(row_.mac));
  for (int i = 0; i < 500; ++i) {
    ASSERT_TRUE(installer.news(row_.mac, status));
    if (status.state != 4) break;
    app::sleepMilliseconds(10);
  }
  EXPECT_EQ(status.state, 2u);
  EXPECT_EQ(status.statusText, "Installation completed");
  EXPECT_EQ(status.progress, 1300u);
  installer.cancel(row_.mac);
  EXPECT_FALSE(installer.holds(row_.mac));
  EXPECT_FALSE(installer.news(row_.mac, status));
}

// Before each step the held drive is looked at again; the first look that
// finds it changed ends the installation with that step's failure text,
// and nothing of that step or after it is done.
struct ChangedDrive {
  int look;
  const char* text;
  bool sectorZeroCleared;
  size_t formats;
};

class DriveChangedBeforeAStep : public DiskInstallationTest, public ::testing::WithParamInterface<ChangedDrive> {};

TEST_P(DriveChangedBeforeAStep, EndsWithThatStepsTextAndDoesNoMore) {
  disk_.changedAt = GetParam().look;
  std::string saved = oldSector();
  tarnlift::testing::CapturedLog log;
  EXPECT_EQ(failure(), GetParam().text);
  EXPECT_TRUE(log.contains("refused: the fake drive changed\n")) << log.text();
  EXPECT_EQ(sectorZero(), GetParam().sectorZeroCleared);
  if (!GetParam().sectorZeroCleared) {
    EXPECT_EQ(oldSector(), saved);
  }
  EXPECT_EQ(formatter_.calls.size(), GetParam().formats);
  EXPECT_EQ(disk_.journal.back(), "let go") << "the drive is let go at the end";
  EXPECT_NE(final_.statusText, "Installation completed");
}

INSTANTIATE_TEST_SUITE_P(Steps, DriveChangedBeforeAStep,
                         ::testing::Values(ChangedDrive{1, "Cannot open physical device", false, 0},
                                           ChangedDrive{2, "Cannot format device", true, 0},
                                           ChangedDrive{3, "Cannot copy system files", true, 1},
                                           ChangedDrive{4, "Cannot copy system files", true, 1},
                                           ChangedDrive{5, "Cannot copy packages", true, 1},
                                           ChangedDrive{7, "Cannot copy config", true, 1},
                                           ChangedDrive{8, "Cannot open device", true, 1}));

TEST_F(DiskInstallationTest, ADriveTakenWhileItWasFormattedFails) {
  disk_.takenDuringFormat = true;
  tarnlift::testing::CapturedLog log;
  EXPECT_EQ(failure(), "Cannot format device");
  EXPECT_TRUE(log.contains("refused: the fake drive was taken\n")) << log.text();
  EXPECT_EQ(volume_.files.count("linux"), 0u);
}

TEST_F(DiskInstallationTest, ARefusedDriveIsNeverOpenedForWriting) {
  disk_.refusal = "E: is refused";
  tarnlift::testing::CapturedLog log;
  std::string saved = oldSector();
  EXPECT_EQ(failure(), "Cannot open device");
  EXPECT_TRUE(log.contains("refused: E: is refused\n")) << log.text();
  EXPECT_EQ(oldSector(), saved);
  EXPECT_EQ(disk_.journal, (std::vector<std::string>{"hold E"}));
}

TEST_F(DiskInstallationTest, ADriveHeldByTheCallerIsUsedAndLookedAtFirst) {
  DiskInstallation installation(row_, &services_);
  DriveId drive;
  drive.letter = 'E';
  installation.useHeldDrive(std::make_unique<FakeHeldDrive>(disk_, drive));
  EXPECT_TRUE(installation.install());
  EXPECT_EQ(disk_.journal.front(), "open volume E") << "no second hold";
  EXPECT_EQ(disk_.looks, 9) << "the caller's hold is looked at before step 2 too";
}

TEST_F(DiskInstallationTest, ABootLoaderInstallerThatCannotBeWrittenOrStartedFailsTheInstallation) {
  runner_.starts = false;
  std::vector<DiskStatus> news = install(false);
  EXPECT_EQ(final_.errorText, "Cannot copy system files");
  EXPECT_EQ(runner_.cleanUps, 1);
  for (const DiskStatus& status : news) EXPECT_NE(status.statusText, "Installation completed");
  EXPECT_EQ(volume_.files.count("system-1.npk"), 0u) << "no packages on a disk that cannot boot";
}

// Cancel ends what runs on the drive first, then the thread: it returns only
// when nothing of the installation runs any more, and no thread is killed.
TEST_F(DiskInstallationTest, CancelDuringTheFormatEndsTheFormatterThenTheThread) {
  formatter_.runsMs = 60000;
  tarnlift::testing::CapturedLog log;
  LocalDiskInstaller installer(&services_);
  installer.start(row_);
  ASSERT_TRUE(formatter_.started.waitFor(10000));
  auto begun = std::chrono::steady_clock::now();
  installer.cancel(row_.mac);
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5));
  EXPECT_TRUE(formatter_.stopped) << "the formatter saw the stop";
  EXPECT_FALSE(installer.holds(row_.mac));
  EXPECT_EQ(disk_.journal.back(), "let go");
  EXPECT_TRUE(volume_.files.empty()) << "nothing written after the format";
  EXPECT_FALSE(log.contains("thread still active")) << log.text();
  EXPECT_FALSE(log.contains("ignoring 'terminate'")) << log.text();
  EXPECT_TRUE(log.contains("failed: " + std::string(kInstallationCancelled) + "\n")) << log.text();
}

TEST_F(DiskInstallationTest, CancelWhileTheBootLoaderRunsKillsIt) {
  runner_.runningPolls = -1;
  tarnlift::testing::CapturedLog log;
  auto installation = std::make_unique<DiskInstallation>(row_, &services_);
  installation->start();
  for (int i = 0; i < 500 && runner_.polls == 0; ++i) app::sleepMilliseconds(10);
  ASSERT_GT(runner_.polls, 0);
  installation->cancel();
  EXPECT_TRUE(installation->isFinished());
  EXPECT_GE(runner_.kills, 1);
  EXPECT_EQ(runner_.cleanUps, 1);
  EXPECT_EQ(installation->status().errorText, kInstallationCancelled);
  EXPECT_EQ(volume_.files.count("system-1.npk"), 0u);
  installation.reset();
  EXPECT_FALSE(log.contains("thread still active")) << log.text();
}

TEST(SectorDump, EightWordsALineLedByTheOffset) {
  uint8_t sector[512] = {};
  sector[0] = 0xEB;
  sector[1] = 0x58;
  sector[16] = 0x01;
  sector[510] = 0x55;
  sector[511] = 0xAA;
  std::string text = sectorDumpText(sector, sizeof sector);
  EXPECT_EQ(text.substr(0, 50), "\n00000000 58eb 0000 0000 0000 0000 0000 0000 0000 ");
  EXPECT_EQ(text.substr(50, 15), "\n00000010 0001 ");
  EXPECT_EQ(text.substr(text.size() - 50), "\n000001f0 0000 0000 0000 0000 0000 0000 0000 aa55 ");
  size_t lines = 0;
  for (char c : text) lines += c == '\n' ? 1 : 0;
  EXPECT_EQ(lines, 32u);
}

TEST(SectorDump, PrintSectorReadsOneSectorOfTheDevice) {
  FakeDisk disk;
  disk.bytes[0] = 0x34;
  disk.bytes[1] = 0x12;
  FakeDevice device(disk, "physical");
  tarnlift::testing::CapturedLog log;
  EXPECT_TRUE(printSector(device));
  EXPECT_EQ(log.text().substr(0, 15), "\n00000000 1234 ");
  disk.shortRead = 100;
  EXPECT_FALSE(printSector(device));
}

TEST(BaudRateLine, IsTheRouterCommand) {
  EXPECT_EQ(baudRateLine(115200), "\n/port set [/port find] baud-rate=115200\n");
}

}  // namespace
}  // namespace tarnlift::localdisk

namespace tarnlift::localdisk {
namespace {

TEST(DiskStatusPercent, ProgressAgainstTheTotalAndADoneRowWithoutOne) {
  DiskStatus status;
  EXPECT_EQ(status.percentDone(), 0u);
  status.state = install::kStatusDone;
  EXPECT_EQ(status.percentDone(), 100u);  // finished before any total was known
  status.state = install::kStatusInstalling;
  status.total = 0xFFFFFFFFu;
  status.progress = 0x7FFFFFFFu;
  EXPECT_EQ(status.percentDone(), 49u);
  status.total = 4;
  status.progress = 9;
  EXPECT_EQ(status.percentDone(), 100u);
}

}  // namespace
}  // namespace tarnlift::localdisk
