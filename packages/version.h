// Packed version numbers: major << 24 | minor << 16 | stage << 8 | build,
// compared as plain unsigned integers. One number stands for a package's
// version, the bounds of a dependency and the versions a router reports.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tarnlift::packages {

using PackageVersion = uint32_t;

// Release stages (bits 15-8). Stage 0 is the "_ab" form.
inline constexpr uint32_t kStageAb = 0x00;
inline constexpr uint32_t kStageAlpha = 0x61;
inline constexpr uint32_t kStageBeta = 0x62;
inline constexpr uint32_t kStageRc = 0x63;
inline constexpr uint32_t kStageFinal = 0x66;
// Bit 7 of the build byte marks a test build.
inline constexpr uint32_t kTestBuildBit = 0x80;
// The unbounded upper limit of a dependency range.
inline constexpr PackageVersion kAnyVersion = 0xFFFFFFFF;

// "6.41rc2" -> 0x06296302; 0 when the text is not a version. Fields are not
// range-checked: a minor or build above 255 spills into the next field up,
// which the routers' own tools rely on.
PackageVersion parseVersion(std::string_view text);

// 0x06296302 -> "6.41rc2"; at most 79 characters.
std::string formatVersion(PackageVersion version);

// The same text in a buffer owned by the calling thread; valid until the
// thread's next call. Kept for list cells and log lines that want a char*.
const char* formatVersionBuffer(PackageVersion version);

}  // namespace tarnlift::packages
