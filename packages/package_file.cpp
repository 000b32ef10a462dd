#include "packages/package_file.h"

#include <algorithm>
#include <cstring>

#include "app/log.h"

namespace tarnlift::packages {
namespace {

constexpr const char* kArchitectures[kArchitectureCount] = {nullptr, "i386", "mipsel", "powerpc", "mips",
                                                            "tile",  "arm",  "arm64",  "smips",   "mmips"};

// Only the first bytes of a description are kept for the list cell; the
// rest is still read so that a description cut short is noticed.
constexpr size_t kDescriptionKept = 64 * 1024;
// An architecture text longer than this cannot match a code; the rest of
// the part is skipped unread.
constexpr size_t kArchitectureKept = 256;
// Dependency and exclusion entries are read this many at a time.
constexpr size_t kEntriesPerRead = 128;

uint32_t le32(const uint8_t* bytes) {
  return uint32_t(bytes[0]) | uint32_t(bytes[1]) << 8 | uint32_t(bytes[2]) << 16 | uint32_t(bytes[3]) << 24;
}

std::string entryName(const uint8_t* entry) {
  const void* nul = std::memchr(entry, 0, kEntryNameSize);
  const size_t length = nul ? static_cast<size_t>(static_cast<const uint8_t*>(nul) - entry) : kEntryNameSize;
  return std::string(reinterpret_cast<const char*>(entry), length);
}

PackageDependency dependencyEntry(const uint8_t* entry) {
  PackageDependency d;
  d.name = entryName(entry);
  d.minVersion = le32(entry + 16);
  const uint32_t highest = le32(entry + 24);
  d.maxVersion = highest == 0 ? kAnyVersion : highest;
  return d;
}

bool readExactly(PartReader& reader, void* buffer, size_t size) { return reader.read(buffer, size) == size; }

// Reads count dependency entries into out; false on a short read.
bool readEntries(PartReader& reader, size_t count, std::vector<PackageDependency>& out) {
  uint8_t block[kEntriesPerRead * kEntrySize];
  while (count != 0) {
    const size_t now = std::min(count, kEntriesPerRead);
    const size_t got = reader.read(block, now * kEntrySize);
    const size_t whole = got / kEntrySize;
    for (size_t i = 0; i < whole; ++i) out.push_back(dependencyEntry(block + i * kEntrySize));
    if (got != now * kEntrySize) return false;
    count -= now;
  }
  return true;
}

}  // namespace

const char* architectureText(uint32_t code) { return code < kArchitectureCount ? kArchitectures[code] : nullptr; }

bool architectureAccepted(uint32_t code, const std::string& text) {
  if (text.empty() || code == kArchitectureAny) return true;
  const char* wanted = architectureText(code);
  return wanted != nullptr && text == wanted;
}

bool readPackageContents(ByteSource& source, const std::string& fileName, uint32_t architectureCode,
                         PackageFileContents& out) {
  PackageRecord& record = out.record;
  PartReader reader(source);
  app::logLine() << "add pack " << fileName;

  bool groupSeen = false;
  uint8_t entry[kEntrySize];
  for (;;) {
    const int type = reader.nextPart({kPartGroupHeader, kPartPackageHeader, kPartArchitecture, kPartDescription,
                                      kPartDependencies, kPartExclusions});
    if (type < 0) break;
    switch (type) {
      case kPartGroupHeader: {
        if (!readExactly(reader, entry, kEntrySize)) return false;
        record.name = entryName(entry);
        record.version = le32(entry + 16);
        groupSeen = true;
        app::logLine() << record.name << ": " << formatVersion(record.version);
        break;
      }
      case kPartPackageHeader: {
        if (!readExactly(reader, entry, kEntrySize)) return false;
        const std::string name = entryName(entry);
        const PackageVersion version = le32(entry + 16);
        record.providedNames.push_back(name);
        record.constraints.push_back({name, 0, kAnyVersion});
        if (!groupSeen) {
          record.name = name;
          record.version = version;
        }
        app::logLine() << "\t" << name << ": " << formatVersion(groupSeen ? record.version : version);
        break;
      }
      case kPartDescription: {
        if (!out.description.empty()) break;
        std::string text;
        char block[4096];
        while (reader.remaining() != 0) {
          const size_t want = std::min<size_t>(reader.remaining(), sizeof block);
          const size_t got = reader.read(block, want);
          if (text.size() < kDescriptionKept) text.append(block, std::min(got, kDescriptionKept - text.size()));
          if (got != want) return false;
        }
        std::replace(text.begin(), text.end(), '\n', ' ');
        std::replace(text.begin(), text.end(), '\r', ' ');
        out.description = std::move(text);
        break;
      }
      case kPartArchitecture: {
        char text[kArchitectureKept];
        const size_t got = reader.read(text, sizeof text);
        if (got > 1) {
          record.architecture.assign(text, got);
          if (!architectureAccepted(architectureCode, record.architecture)) return false;
        }
        break;
      }
      case kPartExclusions: {
        uint8_t count[2];
        if (!readExactly(reader, count, sizeof count)) return false;
        if (!readEntries(reader, size_t(count[0] | count[1] << 8), record.constraints)) return false;
        break;
      }
      case kPartDependencies: {
        if (groupSeen) break;
        uint8_t count[2];
        if (!readExactly(reader, count, sizeof count)) {
          app::logLine() << "bad deps";
          break;
        }
        if (!readEntries(reader, size_t(count[0] | count[1] << 8), record.dependencies)) {
          app::logLine() << "bad deps2";
          return false;
        }
        break;
      }
      default:
        break;
    }
  }
  return true;
}

bool PackageRecord::provides(const std::string& packageName) const {
  return name == packageName ||
         std::find(providedNames.begin(), providedNames.end(), packageName) != providedNames.end();
}

std::string shownName(const PackageRecord& record) {
  if (record.name == "system" && record.version > 0x06FFFFFF) return "brisvane";
  return record.name;
}

std::string shownArchitecture(const std::string& architecture) {
  if (architecture == "mipsel") return "mipsle";
  if (architecture == "mips") return "mipsbe";
  if (architecture == "powerpc") return "ppc";
  if (architecture == "smips" || architecture == "mmips" || architecture == "tile" || architecture == "arm" ||
      architecture == "arm64") {
    return architecture;
  }
  return "";
}

std::string shownDescription(const std::string& description, const std::string& fileName) {
  if (description.find_first_not_of(' ') == std::string::npos) return fileName;
  return description;
}

}  // namespace tarnlift::packages
