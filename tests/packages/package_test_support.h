// A scratch package folder for one test, removed when the test ends.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "packages/version.h"
#include "tools/mkpkg/package_writer.h"

namespace tarnlift::packages::testing {

namespace fs = std::filesystem;

inline PackageVersion v(const char* text) {
  const PackageVersion version = parseVersion(text);
  EXPECT_NE(version, 0u) << text;
  return version;
}

class ScratchFolder {
 public:
  ScratchFolder() {
    static std::atomic<int> counter{0};
    const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    path_ =
        fs::temp_directory_path() / ("tarnlift-packages-" + std::to_string(stamp) + "-" + std::to_string(counter++));
    fs::create_directories(path_);
  }
  ~ScratchFolder() {
    std::error_code error;
    fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, error);
    fs::remove_all(path_, error);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  std::string path() const { return path_.string(); }
  std::string file(const std::string& name) const { return (path_ / name).string(); }

  void write(const std::string& name, const mkpkg::PackageWriter& writer) const {
    ASSERT_TRUE(writer.writeFile(file(name))) << name;
  }
  void writeBytes(const std::string& name, const std::vector<uint8_t>& bytes) const {
    std::ofstream out(file(name), std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(out.good()) << name;
  }
  // A plain package: one header, optional dependencies.
  void plain(const std::string& fileName, const std::string& name, const char* version,
             const std::vector<mkpkg::DependencyEntry>& dependencies = {}) const {
    mkpkg::PackageWriter writer;
    writer.package(name, v(version));
    if (!dependencies.empty()) writer.dependencies(dependencies);
    write(fileName, writer);
  }

 private:
  fs::path path_;
};

}  // namespace tarnlift::packages::testing
