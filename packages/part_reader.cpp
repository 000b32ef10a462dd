#include "packages/part_reader.h"

#include <algorithm>
#include <cstring>

namespace tarnlift::packages {
namespace {

uint32_t readLe32(const uint8_t* bytes) {
  return uint32_t(bytes[0]) | uint32_t(bytes[1]) << 8 | uint32_t(bytes[2]) << 16 | uint32_t(bytes[3]) << 24;
}

// Block size for discarding the rest of a part on a source that cannot seek.
constexpr size_t kDiscardBlock = 4096;

}  // namespace

size_t MemoryByteSource::read(void* buffer, size_t size) {
  const size_t count = std::min(size, size_ - position_);
  if (count != 0) std::memcpy(buffer, data_ + position_, count);
  position_ += count;
  return count;
}

bool MemoryByteSource::skip(uint64_t count) {
  if (!seekable_) return false;
  position_ = count >= size_ - position_ ? size_ : position_ + static_cast<size_t>(count);
  return true;
}

PartReader::PartReader(ByteSource& source) : source_(source) {
  uint8_t header[8];
  if (source_.read(header, sizeof header) != sizeof header) {
    failed_ = true;
    return;
  }
  magic_ = readLe32(header);
  payloadLength_ = readLe32(header + 4);
  if (magic_ != kPackageMagic && magic_ != kPackageMagicAlt) failed_ = true;
}

bool PartReader::skipRest() {
  if (remaining_ == 0) return true;
  if (source_.canSeek() && source_.skip(remaining_)) {
    remaining_ = 0;
    return true;
  }
  uint8_t block[kDiscardBlock];
  while (remaining_ != 0) {
    const size_t want = std::min<size_t>(remaining_, sizeof block);
    const size_t got = source_.read(block, want);
    remaining_ -= static_cast<uint32_t>(got);
    if (got != want) return false;
  }
  return true;
}

int PartReader::nextPart(std::initializer_list<uint16_t> wantedTypes) {
  return nextPartIn(wantedTypes.begin(), wantedTypes.size());
}

int PartReader::nextPart(const std::vector<uint16_t>& wantedTypes) {
  return nextPartIn(wantedTypes.data(), wantedTypes.size());
}

int PartReader::nextPartIn(const uint16_t* types, size_t count) {
  if (failed_ || ended_) return -1;
  for (;;) {
    if (!skipRest()) {
      ended_ = true;
      return -1;
    }
    uint8_t header[6];
    if (source_.read(header, sizeof header) != sizeof header) {
      ended_ = true;
      return -1;
    }
    const uint16_t type = static_cast<uint16_t>(header[0] | header[1] << 8);
    remaining_ = readLe32(header + 2);
    if (std::find(types, types + count, type) != types + count) return type;
  }
}

size_t PartReader::read(void* buffer, size_t size) {
  const size_t want = std::min<size_t>(size, remaining_);
  if (want == 0) return 0;
  const size_t got = source_.read(buffer, want);
  remaining_ -= static_cast<uint32_t>(got);
  return got;
}

}  // namespace tarnlift::packages
