// A path in the test framework's temporary folder that belongs to this
// process alone: test runs from other checkouts on the same machine use the
// same folder at the same time.
#pragma once

#include <gtest/gtest.h>

#include <string>

#ifdef _WIN32
#include <process.h>
#else
#include <unistd.h>
#endif

namespace tarnlift::testing {

inline std::string privateTempPath(const std::string& name) {
#ifdef _WIN32
  long id = _getpid();
#else
  long id = static_cast<long>(getpid());
#endif
  return ::testing::TempDir() + "p" + std::to_string(id) + "-" + name;
}

}  // namespace tarnlift::testing
