// The Linux helpers of the local disk road: the child process that runs
// the tools, program lookup, and what a path stands for.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "localdisk/child_process.h"
#include "localdisk/disk_access.h"
#include "localdisk/disk_access.h"
#include "localdisk/linux_disks.h"
#include "tests/app/private_temp.h"

namespace tarnlift::localdisk {
namespace {

TEST(ChildProcess, RunToolGivesTheExitCodeAndBothStreams) {
  std::string output;
  EXPECT_EQ(runTool({"/bin/sh", "-c", "echo out; echo err >&2; exit 3"}, output, 10000), 3);
  EXPECT_NE(output.find("out\n"), std::string::npos);
  EXPECT_NE(output.find("err\n"), std::string::npos);
}

TEST(ChildProcess, AToolThatReadsItsInputSeesItsEnd) {
  std::string output;
  EXPECT_EQ(runTool({"/bin/cat"}, output, 10000), 0);
  EXPECT_EQ(output, "");
}

TEST(ChildProcess, AToolPastItsTimeIsKilled) {
  std::string output;
  auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(runTool({"/bin/sleep", "30"}, output, 300), -1);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
}

TEST(ChildProcess, AMissingToolCannotStart) {
  std::string output;
  EXPECT_EQ(runTool({"/no/such/tool"}, output, 1000), -1);
  EXPECT_EQ(runTool({}, output, 1000), -1);
}

TEST(ChildProcess, MuchOutputDoesNotBlockTheChild) {
  std::string output;
  EXPECT_EQ(runTool({"/bin/sh", "-c", "head -c 300000 /dev/zero | tr '\\\\0' x"}, output, 20000), 0);
  EXPECT_EQ(output.size(), 300000u);
}

TEST(FindProgram, LooksInPathAndTheSystemFolders) {
  EXPECT_EQ(findProgram("sh").empty(), false);
  EXPECT_EQ(findProgram("tl-no-such-program-anywhere"), "");
}

// The rules over the running machine: an image file may be erased while
// nothing uses it; what is no disk and no file is refused by name.
TEST(LinuxTargets, AnImageFileMayBeErasedAndAMissingOneIsNamed) {
  std::string path = tarnlift::testing::privateTempPath("tl-linux-disks.img");
  { std::ofstream(path) << "x"; }
  std::unique_ptr<DiskAccess> access = makePlatformDiskAccess();
  DriveId drive;
  drive.path = path;
  std::string reason;
  EXPECT_TRUE(access->check(drive, reason)) << reason;
  std::unique_ptr<HeldDrive> held = access->hold(drive, reason);
  ASSERT_NE(held, nullptr) << reason;
  EXPECT_EQ(held->reach().path.rfind("/proc/", 0), 0u) << "the tools get the held descriptor";
  EXPECT_TRUE(held->unchanged(reason)) << reason;
  // Replaced by another file of the same name: the name no longer leads to
  // what is held.
  std::filesystem::remove(path);
  { std::ofstream(path) << "y"; }
  EXPECT_FALSE(held->unchanged(reason));
  EXPECT_NE(reason.find(path + " changed since it was checked"), std::string::npos) << reason;
  std::filesystem::remove(path);
  EXPECT_FALSE(held->unchanged(reason));
  EXPECT_EQ(reason, path + " is gone since it was checked");
  EXPECT_FALSE(access->check(drive, reason));
  EXPECT_EQ(reason, path + " does not exist");
}

TEST(LinuxTargets, WhatIsNoDiskIsRefused) {
  std::unique_ptr<DiskAccess> access = makePlatformDiskAccess();
  DriveId drive;
  std::string reason;
  drive.path = "/dev/null";
  EXPECT_FALSE(access->check(drive, reason));
  EXPECT_EQ(reason, "/dev/null is neither a disk nor a disk image file");
  drive.path = "/";
  EXPECT_FALSE(access->check(drive, reason));
  drive.path = "";
  EXPECT_FALSE(access->check(drive, reason));
  EXPECT_EQ(access->hold(drive, reason), nullptr);
}

TEST(LinuxTargets, TheDiskOfTheRootFileSystemHoldsTheSystem) {
  // Whatever disk "/" lives on (none in a container on an overlay), the
  // drive list never shows it.
  for (const install::RouterRecord& row : listLocalDrives()) {
    std::string name = row.label.substr(row.label.rfind('/') + 1);
    EXPECT_FALSE(diskUse(realLinuxSystem(), name).holdsSystem()) << row.label;
    EXPECT_TRUE(row.driveType == kDriveRemovable || row.driveType == kDriveFixed);
  }
}

}  // namespace
}  // namespace tarnlift::localdisk
