// Reading one package file into a PackageRecord, and the texts the package
// list shows for it.
#pragma once

#include <cstdint>
#include <string>

#include "packages/package_record.h"
#include "packages/part_reader.h"

namespace tarnlift::packages {

// Part types the catalogue reads; every other type is skipped unread.
enum PartType : uint16_t {
  kPartPackageHeader = 1,
  kPartDescription = 2,
  kPartDependencies = 3,
  kPartArchitecture = 16,
  kPartExclusions = 17,
  kPartGroupHeader = 18,
};

// Size of a name-and-version entry and of a dependency entry.
inline constexpr size_t kEntrySize = 32;
inline constexpr size_t kEntryNameSize = 16;

// Architecture codes: 0 accepts every package, 1..9 the texts below.
inline constexpr uint32_t kArchitectureAny = 0;
inline constexpr uint32_t kArchitectureCount = 10;
// "i386" for 1 ... "mmips" for 9; nullptr for 0 and codes above 9.
const char* architectureText(uint32_t code);
// Whether a package with architecture text `text` may be listed under code.
// An empty text always passes (files without an architecture part).
bool architectureAccepted(uint32_t code, const std::string& text);

// What the reader makes of one file.
struct PackageFileContents {
  PackageRecord record;
  // Shown only; CR and LF already replaced by spaces.
  std::string description;
};

// Reads the parts of one package file. Returns false when the file is
// rejected (a cut-short entry, description or list, or an architecture the
// code does not accept). A file with an unknown magic is accepted with an
// empty name. Logs "add pack ", the header lines and "bad deps"/"bad deps2".
// record.fileName and record.fileSize are left for the caller.
bool readPackageContents(ByteSource& source, const std::string& fileName, uint32_t architectureCode,
                         PackageFileContents& out);

// The list texts: "system" from major version 7 on shows as "brisvane".
std::string shownName(const PackageRecord& record);
// "i386" and unknown texts show empty; "mipsel" as "mipsle", "mips" as
// "mipsbe", "powerpc" as "ppc"; the others as themselves.
std::string shownArchitecture(const std::string& architecture);
// The description, or the file name when it is empty or only spaces.
std::string shownDescription(const std::string& description, const std::string& fileName);

}  // namespace tarnlift::packages
