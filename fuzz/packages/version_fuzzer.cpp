// parseVersion on arbitrary text: it must not crash, and what formatVersion
// prints must be parseable and stable from then on.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "packages/version.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tarnlift::packages;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const PackageVersion version = parseVersion(text);
  const std::string printed = formatVersion(version);
  if (printed.size() > 79) std::abort();
  if (printed != formatVersionBuffer(version)) std::abort();
  // Printing then parsing reaches a fixed point after one round: the printed
  // text of a parsed version parses again to a version printing the same.
  const PackageVersion again = parseVersion(printed);
  if (again != 0 && formatVersion(again) != formatVersion(parseVersion(formatVersion(again)))) std::abort();
  // Any 32-bit value read from the input prints within bounds.
  if (size >= 4) {
    const uint32_t raw = uint32_t(data[0]) | uint32_t(data[1]) << 8 | uint32_t(data[2]) << 16 | uint32_t(data[3]) << 24;
    if (formatVersion(raw).size() > 79) std::abort();
  }
  return 0;
}
