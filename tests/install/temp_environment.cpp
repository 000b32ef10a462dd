// Every test of this program gets a temporary folder of its own, so that the
// files the autorun script generation leaves behind by design (the unique
// name's own empty file) go away with it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

namespace {

void setVariable(const char* name, const std::string& value) {
#ifdef _WIN32
  _putenv_s(name, value.c_str());
#else
  setenv(name, value.c_str(), 1);
#endif
}

class TemporaryFolderEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    std::random_device random;
    folder_ = std::filesystem::temp_directory_path() / ("tl-install-tests-" + std::to_string(random()));
    std::filesystem::create_directories(folder_);
    for (const char* name : {"TMPDIR", "TMP", "TEMP"}) setVariable(name, folder_.string());
  }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

 private:
  std::filesystem::path folder_;
};

const ::testing::Environment* const kEnvironment = ::testing::AddGlobalTestEnvironment(new TemporaryFolderEnvironment);

}  // namespace
