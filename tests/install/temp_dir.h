// A folder of its own per test, removed afterwards.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

namespace tarnlift::testing {

class TempDir {
 public:
  TempDir() {
    std::random_device random;
    path_ = std::filesystem::temp_directory_path() /
            ("tl-install-" + std::to_string(random()) + "-" + std::to_string(random()));
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string path() const { return path_.string(); }
  std::string file(const std::string& name) const { return (path_ / name).string(); }
  std::string write(const std::string& name, const std::string& content) const {
    std::ofstream out(path_ / name, std::ios::binary);
    out << content;
    return file(name);
  }

 private:
  std::filesystem::path path_;
};

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline std::string patternBytes(size_t size, unsigned seed = 1) {
  std::string data(size, '\0');
  uint32_t x = seed * 2654435761u + 1;
  for (size_t i = 0; i < size; ++i) {
    x = x * 1103515245u + 12345u;
    data[i] = static_cast<char>(x >> 16);
  }
  return data;
}

}  // namespace tarnlift::testing
