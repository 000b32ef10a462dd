#include "packages/version.h"

#include <cstdio>

namespace tarnlift::packages {
namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Reads a decimal number as a 32-bit unsigned long conversion does: a value
// too large for 32 bits saturates at 0xFFFFFFFF. False when no digit is there.
bool readNumber(std::string_view text, size_t& pos, uint32_t& value) {
  if (pos >= text.size() || !isDigit(text[pos])) return false;
  uint64_t number = 0;
  while (pos < text.size() && isDigit(text[pos])) {
    number = number * 10 + static_cast<uint64_t>(text[pos] - '0');
    if (number > 0xFFFFFFFFu) number = 0x100000000u;  // stays saturated
    ++pos;
  }
  value = number > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(number);
  return true;
}

bool startsWith(std::string_view text, size_t pos, std::string_view word) {
  return text.substr(pos, word.size()) == word;
}

}  // namespace

PackageVersion parseVersion(std::string_view text) {
  size_t pos = 0;
  uint32_t major = 0;
  uint32_t minor = 0;
  uint32_t build = 0;
  if (!readNumber(text, pos, major)) return 0;
  if (pos >= text.size() || text[pos] != '.') return 0;
  ++pos;
  if (!readNumber(text, pos, minor)) return 0;
  if (pos < text.size() && text[pos] == '.') {
    ++pos;
    if (!readNumber(text, pos, build)) return 0;
  }

  uint32_t stage = 0;
  if (pos == text.size()) {
    stage = kStageFinal;
  } else if (startsWith(text, pos, "_ab")) {
    stage = kStageAb;
    pos += 3;
  } else if (startsWith(text, pos, "alpha")) {
    stage = kStageAlpha;
    pos += 5;
  } else if (startsWith(text, pos, "beta")) {
    stage = kStageBeta;
    pos += 4;
  } else if (startsWith(text, pos, "rc")) {
    stage = kStageRc;
    pos += 2;
  } else if (startsWith(text, pos, "final")) {
    stage = kStageFinal;
    pos += 5;
  } else if (startsWith(text, pos, "test")) {
    stage = kStageFinal;
    build |= kTestBuildBit;
    pos += 4;
  } else {
    return 0;
  }

  if (build != 0) {
    // A patch number or a test build ends the text.
    if (pos != text.size()) return 0;
  } else if (pos != text.size()) {
    // The stage number, up to the end of the text.
    if (!readNumber(text, pos, build) || pos != text.size()) return 0;
  }
  return (major << 24) | (minor << 16) | (stage << 8) | build;
}

namespace {

void formatInto(PackageVersion version, char* out, size_t size) {
  const unsigned major = version >> 24;
  const unsigned minor = (version >> 16) & 0xFF;
  const unsigned stage = (version >> 8) & 0xFF;
  const unsigned low = version & 0xFF;
  if (stage > 0x60) {
    const char* word = "";
    if (stage == kStageAlpha) {
      word = "alpha";
    } else if (stage == kStageBeta) {
      word = "beta";
    } else if (stage == kStageRc) {
      word = "rc";
    } else if (stage == kStageFinal && low != 0) {
      word = ".";
    }
    if (low == 0) {
      std::snprintf(out, size, "%u.%u%s", major, minor, word);
    } else {
      std::snprintf(out, size, "%u.%u%s%u", major, minor, word, low);
    }
    return;
  }
  const unsigned low16 = version & 0xFFFF;
  if (low16 != 0) {
    std::snprintf(out, size, "%u.%u%s%u", major, minor, "_ab", low16);
  } else {
    std::snprintf(out, size, "%u.%u", major, minor);
  }
}

}  // namespace

std::string formatVersion(PackageVersion version) {
  char text[80];
  formatInto(version, text, sizeof text);
  return text;
}

const char* formatVersionBuffer(PackageVersion version) {
  thread_local char text[80];
  formatInto(version, text, sizeof text);
  return text;
}

}  // namespace tarnlift::packages
