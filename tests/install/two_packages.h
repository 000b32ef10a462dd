// The small release most installation tests use: "system" and "extra", which
// depends on it, both 6.41 for arm.
#pragma once

#include <cstddef>

#include "packages/version.h"
#include "tests/install/temp_dir.h"
#include "tools/mkpkg/package_writer.h"

namespace tarnlift::testing {

inline void writeSystemAndExtra(const TempDir& dir, size_t systemDataBytes) {
  mkpkg::PackageWriter()
      .package("system", packages::parseVersion("6.41"))
      .architecture("arm")
      .data(systemDataBytes)
      .writeFile(dir.file("system-6.41.npk"));
  mkpkg::PackageWriter()
      .package("extra", packages::parseVersion("6.41"))
      .architecture("arm")
      .dependencies({{"system", packages::parseVersion("6.41"), 0}})
      .data(100)
      .writeFile(dir.file("extra-6.41.npk"));
}

}  // namespace tarnlift::testing
