// Builds package files for tests, benchmarks, the router simulator and users
// who want test packages: the container header, then the parts in the order
// they are added. Lengths may be made to lie and files cut short, so that
// broken files are as easy to make as good ones.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarnlift::mkpkg {

struct DependencyEntry {
  std::string name;
  uint32_t minVersion = 0;
  uint32_t maxVersion = 0;  // 0 = no upper bound, as in the file
};

class PackageWriter {
 public:
  static constexpr uint32_t kMagic = 0xBAD0F11E;
  static constexpr uint32_t kMagicAlt = 0xA1100FFB;
  static constexpr uint16_t kDataPart = 4;  // file contents; never read by the catalogue

  PackageWriter& magic(uint32_t value);
  // A package header (type 1) or a group header (type 18). Names longer
  // than 16 bytes are cut to 16; 16 bytes are written without a NUL.
  PackageWriter& package(const std::string& name, uint32_t version);
  PackageWriter& group(const std::string& name, uint32_t version);
  PackageWriter& architecture(const std::string& text);
  PackageWriter& description(const std::string& text);
  PackageWriter& dependencies(const std::vector<DependencyEntry>& entries);
  PackageWriter& exclusions(const std::vector<DependencyEntry>& entries);
  // A dependency (3) or exclusion (17) part whose count field says count,
  // whatever the number of entries that follow.
  PackageWriter& entryList(uint16_t type, uint16_t count, const std::vector<DependencyEntry>& entries);
  // Any part with its real length.
  PackageWriter& part(uint16_t type, const std::vector<uint8_t>& payload);
  // A part whose header claims declaredLength but carries payload.
  PackageWriter& partWithLength(uint16_t type, uint32_t declaredLength, const std::vector<uint8_t>& payload);
  // A data part of size zero bytes; writeFile() leaves it as a hole where
  // the file system allows, so huge packages cost no disk space.
  PackageWriter& data(uint64_t size);
  // Cuts the finished file after size bytes (SIZE_MAX: no cut).
  PackageWriter& truncateAt(uint64_t size);

  // The whole file in memory (data parts written out as zeros).
  std::vector<uint8_t> bytes() const;
  uint64_t size() const;
  // Writes the file; false (with errno-style failure) when it cannot.
  bool writeFile(const std::string& path) const;

 private:
  struct Piece {
    std::vector<uint8_t> bytes;
    uint64_t zeros = 0;  // a run of zero bytes after bytes
  };
  PackageWriter& append(std::vector<uint8_t> bytes, uint64_t zeros = 0);
  PackageWriter& nameEntry(uint16_t type, const std::string& name, uint32_t version);

  uint32_t magic_ = kMagic;
  std::vector<Piece> pieces_;
  uint64_t truncateAt_ = UINT64_MAX;
};

// Parses "6.41rc2" (or "0x06296302") into a packed version; false when
// neither form fits.
bool parseVersionArgument(const std::string& text, uint32_t& version);
// "name", "name:min" or "name:min:max".
bool parseDependencyArgument(const std::string& text, DependencyEntry& entry);

}  // namespace tarnlift::mkpkg
