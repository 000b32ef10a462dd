// The real workers' answers about the machine (the threads themselves are
// exercised by the window tests under Wine and the serve tests).
#include "ui/main_workers.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/app/capture_log.h"
#include "tests/ui/fakes.h"

namespace tarnlift::ui {
namespace {

TEST(SystemMainWorkersTest, AnswersAboutEnvironmentFilesAndFolders) {
  auto fake = std::make_unique<testing::FakeDriveInstaller>();
  testing::FakeDriveInstaller* drives = fake.get();
  SystemMainWorkers workers(std::move(fake));
  EXPECT_EQ(&workers.makeDriveInstaller(), drives);

  std::string value;
  EXPECT_FALSE(workers.environment("TARNLIFT_SURELY_NOT_SET_9A", value));
  EXPECT_TRUE(workers.environment("PATH", value));
  EXPECT_FALSE(value.empty());

  std::filesystem::path dir = std::filesystem::temp_directory_path() / "tarnlift-ui-workers-test";
  std::filesystem::create_directories(dir);
  std::filesystem::path file = dir / "conf.rsc";
  { std::ofstream(file) << "x"; }
  EXPECT_TRUE(workers.fileExists(file.string()));
  EXPECT_FALSE(workers.isDirectory(file.string()));
  EXPECT_TRUE(workers.isDirectory(dir.string()));
  EXPECT_FALSE(workers.fileExists((dir / "missing.rsc").string()));
  EXPECT_FALSE(workers.fileExists(""));
  std::filesystem::remove_all(dir);

  EXPECT_EQ(workers.currentDirectory(), std::filesystem::current_path().string());
  uint64_t before = workers.clock().nowMicros();
  EXPECT_GE(workers.clock().nowMicros(), before);
}

TEST(SystemMainWorkersTest, UnderWineNoLocalDrivesAreOffered) {
  tarnlift::testing::CapturedLog log;
  std::unique_ptr<DriveInstaller> drives = SystemMainWorkers::defaultDriveInstaller(true);
  EXPECT_TRUE(drives->listDrives().empty());
  EXPECT_TRUE(log.contains("local drives: none under Wine\n"));
  EXPECT_NE(dynamic_cast<NoDriveInstaller*>(drives.get()), nullptr);
  std::unique_ptr<DriveInstaller> native = SystemMainWorkers::defaultDriveInstaller(false);
  EXPECT_EQ(dynamic_cast<NoDriveInstaller*>(native.get()), nullptr);
  // Wine runs this test program too: the default then offers nothing.
  if (std::getenv("WINELOADER") != nullptr) {
    SystemMainWorkers workers;
    EXPECT_TRUE(workers.makeDriveInstaller().listDrives().empty());
  }
}

}  // namespace
}  // namespace tarnlift::ui
