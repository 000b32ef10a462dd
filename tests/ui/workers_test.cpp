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
  // An injected holder wins over the default, whatever the environment.
  EXPECT_EQ(&workers.makeDriveInstaller(true), drives);

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
  // The window's tick and time-outs run on the process's steady clock.
  EXPECT_EQ(&workers.clock(), &app::SteadyClock::instance());
}

TEST(SystemMainWorkersTest, UnderWineNoLocalDrivesAreOffered) {
  tarnlift::testing::CapturedLog log;
  std::unique_ptr<install::DriveInstaller> drives = SystemMainWorkers::defaultDriveInstaller(true);
  EXPECT_TRUE(drives->listDrives().empty());
  EXPECT_TRUE(log.contains("local drives: none under Wine\n"));
  EXPECT_NE(dynamic_cast<install::NoDriveInstaller*>(drives.get()), nullptr);
  std::unique_ptr<install::DriveInstaller> native = SystemMainWorkers::defaultDriveInstaller(false);
  EXPECT_EQ(dynamic_cast<install::NoDriveInstaller*>(native.get()), nullptr);
  // Without an injected holder the workers make the default for what the
  // presenter read from the environment, once, and keep it.
  SystemMainWorkers layered;
  install::DriveInstaller& first = layered.makeDriveInstaller(true);
  EXPECT_NE(dynamic_cast<install::NoDriveInstaller*>(&first), nullptr);
  EXPECT_EQ(&layered.makeDriveInstaller(false), &first);
  SystemMainWorkers plain;
  EXPECT_EQ(dynamic_cast<install::NoDriveInstaller*>(&plain.makeDriveInstaller(false)), nullptr);
}

}  // namespace
}  // namespace tarnlift::ui
