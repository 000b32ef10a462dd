// The platform's own device access and volume files, for real: on Windows
// the temporary folder's drive stands for the drive (its files go into the
// temporary folder); on Linux a FAT image file made with mkfs.fat.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "localdisk/child_process.h"
#include "localdisk/disk_access.h"
#include "tests/app/capture_log.h"
#include "tests/app/private_temp.h"

#ifdef _WIN32
#include <windows.h>

#include "localdisk/windows_drives.h"
#endif

namespace tarnlift::localdisk {
namespace {

namespace fs = std::filesystem;

std::string readWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// A drive for the files, the prefix that puts names in a folder of it, and
// how to read a file back.
class VolumeFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = tarnlift::testing::privateTempPath(
        "tl-volume-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    source_ = (dir_ / "source.npk").string();
    std::ofstream(source_, std::ios::binary) << std::string(5000, 'p');
#ifdef _WIN32
    char full[MAX_PATH];
    GetFullPathNameA(dir_.string().c_str(), MAX_PATH, full, nullptr);
    std::string path = full;
    drive_.letter = path[0];
    prefix_ = path.substr(3) + "\\";
#else
    std::string mkfs = findProgram("mkfs.fat");
    if (mkfs.empty() || findProgram("mcopy").empty()) GTEST_SKIP() << "mkfs.fat or mtools missing";
    drive_.path = (dir_ / "volume.img").string();
    { std::ofstream image(drive_.path, std::ios::binary); }
    fs::resize_file(drive_.path, 34 * 1024 * 1024);
    std::string output;
    ASSERT_EQ(runTool({mkfs, "-F", "32", "-I", "-n", "y", drive_.path}, output, 60000), 0) << output;
#endif
    files_ = makePlatformVolumeFiles();
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }
  std::string readBack(const std::string& name) {
#ifdef _WIN32
    return readWhole((dir_ / name).string());
#else
    std::string out = (dir_ / ("back-" + name)).string();
    std::string output;
    runTool({findProgram("mcopy"), "-n", "-i", drive_.path, "::" + name, out}, output, 60000);
    return readWhole(out);
#endif
  }

  fs::path dir_;
  std::string source_;
  std::string prefix_;
  DriveId drive_;
  std::unique_ptr<VolumeFiles> files_;
};

TEST_F(VolumeFilesTest, ANewFileIsWrittenAndNotCreatedTwice) {
  std::unique_ptr<OutputFile> file = files_->createNew(drive_, prefix_ + "mbr");
  ASSERT_NE(file, nullptr);
  std::string bytes(512, '\x5a');
  EXPECT_TRUE(file->write(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
  EXPECT_TRUE(file->close());
  EXPECT_EQ(readBack("mbr"), bytes);
  EXPECT_EQ(files_->createNew(drive_, prefix_ + "mbr"), nullptr);
  EXPECT_EQ(readBack("mbr"), bytes) << "an existing file is left alone";
}

TEST_F(VolumeFilesTest, CopiesOverwriteAndAMissingSourceFails) {
  EXPECT_TRUE(files_->copyInto(drive_, source_, prefix_ + "system-1.npk"));
  EXPECT_EQ(readBack("system-1.npk"), std::string(5000, 'p'));
  std::ofstream(source_, std::ios::binary) << "shorter";
  EXPECT_TRUE(files_->copyInto(drive_, source_, prefix_ + "system-1.npk"));
  EXPECT_EQ(readBack("system-1.npk"), "shorter");
  tarnlift::testing::CapturedLog log;
  EXPECT_FALSE(files_->copyInto(drive_, (dir_ / "missing.npk").string(), prefix_ + "missing.npk"));
}

#ifndef _WIN32
// The disk under the image's volume, found as the installation finds it:
// the drive held, the volume's device number, the volume closed, the disk
// opened through the hold.
std::unique_ptr<Device> openDiskOfVolume(HeldDrive& held, StorageDeviceNumber& number) {
  std::unique_ptr<Device> volume = held.openVolume();
  EXPECT_NE(volume, nullptr);
  if (volume == nullptr) return nullptr;
  EXPECT_EQ(volume->deviceNumber(number), kStorageDeviceNumberSize);
  EXPECT_TRUE(volume->close());
  std::string reason;
  std::unique_ptr<Device> disk = held.openPhysical(number.deviceNumber, reason);
  EXPECT_NE(disk, nullptr) << reason;
  return disk;
}

std::unique_ptr<HeldDrive> holdDrive(const DriveId& drive) {
  std::unique_ptr<DiskAccess> devices = makePlatformDiskAccess();
  std::string reason;
  std::unique_ptr<HeldDrive> held = devices->hold(drive, reason);
  EXPECT_NE(held, nullptr) << reason;
  return held;
}

TEST_F(VolumeFilesTest, TheImageIsItsOwnDiskAndSectorZeroCanBeReplaced) {
  std::unique_ptr<HeldDrive> held = holdDrive(drive_);
  ASSERT_NE(held, nullptr);
  StorageDeviceNumber number;
  std::unique_ptr<Device> disk = openDiskOfVolume(*held, number);
  ASSERT_NE(disk, nullptr);
  EXPECT_EQ(number.partitionNumber, 0u);
  uint8_t sector[512];
  ASSERT_TRUE(disk->seek(0));
  ASSERT_EQ(disk->read(sector, 512), 512);
  EXPECT_EQ(sector[510], 0x55);
  EXPECT_EQ(sector[511], 0xAA);
  const uint8_t zeros[512] = {};
  ASSERT_TRUE(disk->seek(0));
  EXPECT_EQ(disk->write(zeros, 512), 512);
  EXPECT_TRUE(disk->close());
  std::string head = readWhole(drive_.path).substr(0, 512);
  EXPECT_EQ(head, std::string(512, '\0'));
  // The boot loader's installer and the files reach the held descriptor.
  EXPECT_EQ(held->bootLoaderTarget(), held->reach().path);
  EXPECT_EQ(fs::read_symlink(held->reach().path), fs::path(drive_.path));
  std::string reason;
  EXPECT_EQ(held->openPhysical(number.deviceNumber + 7, reason), nullptr);
  EXPECT_NE(reason.find("is not that of"), std::string::npos) << reason;
}

// Every device wrapper logs its own line and answers its failure value:
// a whole disk has no device number, and a closed device can do nothing.
TEST_F(VolumeFilesTest, TheDeviceWrappersLogTheirFailuresAndAnswerAFailureValue) {
  std::unique_ptr<HeldDrive> held = holdDrive(drive_);
  ASSERT_NE(held, nullptr);
  StorageDeviceNumber number;
  std::unique_ptr<Device> disk = openDiskOfVolume(*held, number);
  ASSERT_NE(disk, nullptr);
  tarnlift::testing::CapturedLog log;
  EXPECT_EQ(disk->deviceNumber(number), -1);
  EXPECT_TRUE(log.contains("I/O Operation failed\n")) << log.text();
  ASSERT_TRUE(disk->close());
  EXPECT_FALSE(log.contains("Closing handle failed"));
  uint8_t sector[512] = {};
  EXPECT_EQ(disk->read(sector, 512), -1);
  EXPECT_TRUE(log.contains("Read from device failed\n")) << log.text();
  EXPECT_EQ(disk->write(sector, 512), -1);
  EXPECT_TRUE(log.contains("Write from device failed\n")) << log.text();
  EXPECT_FALSE(disk->seek(0));
  EXPECT_TRUE(log.contains("Seeking device failed\n")) << log.text();
  EXPECT_FALSE(disk->close());
  EXPECT_TRUE(log.contains("Closing handle failed\n")) << log.text();
}
#endif

#ifdef _WIN32
// The Windows wrappers on the volume of the temporary folder's drive, once
// it is closed: each logs its own line and answers its failure value.
TEST_F(VolumeFilesTest, AClosedVolumeFailsThroughTheDeviceWrappers) {
  std::unique_ptr<Device> volume = realWindowsStorage().openVolume(drive_.letter, false);
  if (volume == nullptr) GTEST_SKIP() << "the volume " << drive_.letter << ": cannot be opened here";
  ASSERT_TRUE(volume->close());
  tarnlift::testing::CapturedLog log;
  uint8_t sector[512] = {};
  EXPECT_EQ(volume->read(sector, 512), -1);
  EXPECT_TRUE(log.contains("Read from device failed\n")) << log.text();
  EXPECT_EQ(volume->write(sector, 512), -1);
  EXPECT_TRUE(log.contains("Write from device failed\n")) << log.text();
  StorageDeviceNumber number;
  EXPECT_EQ(volume->deviceNumber(number), -1);
  EXPECT_TRUE(log.contains("I/O Operation failed\n")) << log.text();
}
#endif

TEST(PlatformDiskAccess, ADriveThatDoesNotExistCannotBeOpened) {
  tarnlift::testing::CapturedLog log;
  std::unique_ptr<DiskAccess> devices = makePlatformDiskAccess();
  DriveId drive;
  drive.letter = 'Q';
  drive.path = "/dev/tl-no-such-disk";
  std::string reason;
  EXPECT_EQ(devices->hold(drive, reason), nullptr);
  EXPECT_FALSE(reason.empty());
  EXPECT_FALSE(devices->check(drive, reason));
}

}  // namespace
}  // namespace tarnlift::localdisk
