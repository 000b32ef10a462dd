// The container of a package file: an 8-byte header (magic, payload length)
// followed by parts, each a 6-byte header (type u16, length u32, little-
// endian) and its payload. The reader hands out the wanted parts one at a
// time and skips everything else without reading it where the source can
// seek, so a package of tens of megabytes costs a few hundred bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

namespace tarnlift::packages {

inline constexpr uint32_t kPackageMagic = 0xBAD0F11E;
inline constexpr uint32_t kPackageMagicAlt = 0xA1100FFB;

// A byte stream the reader pulls from.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  // Reads up to size bytes; returns how many arrived (0 at the end or on error).
  virtual size_t read(void* buffer, size_t size) = 0;
  // Whether skip() moves without reading.
  virtual bool canSeek() const = 0;
  // Moves forward by count bytes; moving past the end is allowed and leaves
  // the source at its end. Returns false when the source cannot seek.
  virtual bool skip(uint64_t count) = 0;
};

// A source over bytes in memory (tests and the fuzz targets).
class MemoryByteSource : public ByteSource {
 public:
  MemoryByteSource(const void* data, size_t size, bool seekable = true)
      : data_(static_cast<const uint8_t*>(data)), size_(size), seekable_(seekable) {}
  size_t read(void* buffer, size_t size) override;
  bool canSeek() const override { return seekable_; }
  bool skip(uint64_t count) override;
  size_t position() const { return position_; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t position_ = 0;
  bool seekable_;
};

class PartReader {
 public:
  // Reads and checks the container header; a short header or an unknown
  // magic leaves the reader failed, yielding no part.
  explicit PartReader(ByteSource& source);

  bool failed() const { return failed_; }
  uint32_t magic() const { return magic_; }
  // The header's payload length; kept but never trusted.
  uint32_t payloadLength() const { return payloadLength_; }

  // Skips the rest of the current part, then the parts whose type is not
  // wanted; returns the type of the next wanted part, or -1 at the end (or
  // when a part header or a skipped payload was cut short).
  int nextPart(std::initializer_list<uint16_t> wantedTypes);
  int nextPart(const std::vector<uint16_t>& wantedTypes);
  // Bytes of the current part's payload not read yet.
  uint32_t remaining() const { return remaining_; }
  // Reads at most min(size, remaining()) bytes; returns how many arrived.
  size_t read(void* buffer, size_t size);
  // Drops the rest of the current part (seeking where possible).
  bool skipRest();

 private:
  int nextPartIn(const uint16_t* types, size_t count);

  ByteSource& source_;
  uint32_t magic_ = 0;
  uint32_t payloadLength_ = 0;
  uint32_t remaining_ = 0;
  bool failed_ = false;
  bool ended_ = false;
};

}  // namespace tarnlift::packages
