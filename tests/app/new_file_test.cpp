// Creating a file that must not exist yet, and writing it whole.
#include "app/new_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/app/private_temp.h"

namespace tarnlift::app {
namespace {

std::string contentOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class NewFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder = testing::privateTempPath(::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
  }
  void TearDown() override { std::filesystem::remove_all(folder); }
  std::string folder;
};

TEST_F(NewFileTest, WritesEveryByteOfANewFileForEitherUse) {
  std::vector<uint8_t> bytes(300'000);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + i / 256);
  for (NewFileUse use : {NewFileUse::Data, NewFileUse::Program}) {
    const std::string path = folder + (use == NewFileUse::Data ? "/data.bin" : "/program.exe");
    NewFileResult result = writeNewFile(path, bytes.data(), bytes.size(), use);
    EXPECT_TRUE(result.created);
    EXPECT_EQ(result.written, bytes.size());
    EXPECT_TRUE(result.closed);
    EXPECT_TRUE(result.whole(bytes.size()));
    EXPECT_FALSE(result.whole(bytes.size() + 1));
    EXPECT_EQ(contentOf(path), std::string(bytes.begin(), bytes.end()));
  }
}

TEST_F(NewFileTest, AFileThatIsThereAlreadyIsLeftAsItWas) {
  const std::string path = folder + "/125.bin";
  std::ofstream(path, std::ios::binary) << "the user's own";
  const uint8_t bytes[] = {1, 2, 3};
  for (NewFileUse use : {NewFileUse::Data, NewFileUse::Program}) {
    NewFileResult result = writeNewFile(path, bytes, sizeof bytes, use);
    EXPECT_FALSE(result.created);
    EXPECT_EQ(result.written, 0u);
    EXPECT_FALSE(result.whole(sizeof bytes));
  }
  EXPECT_EQ(contentOf(path), "the user's own");
}

TEST_F(NewFileTest, AnEmptyFileIsWhole) {
  const std::string path = folder + "/empty";
  NewFileResult result = writeNewFile(path, nullptr, 0, NewFileUse::Data);
  EXPECT_TRUE(result.whole(0));
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ(std::filesystem::file_size(path), 0u);
}

TEST_F(NewFileTest, AFolderThatIsNotThereIsNotCreated) {
  const uint8_t bytes[] = {1};
  NewFileResult result = writeNewFile(folder + "/missing/file", bytes, 1, NewFileUse::Data);
  EXPECT_FALSE(result.created);
  EXPECT_FALSE(std::filesystem::exists(folder + "/missing"));
}

}  // namespace
}  // namespace tarnlift::app
