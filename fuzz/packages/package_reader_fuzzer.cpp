// Feeds arbitrary bytes to the package reader, through a seeking and a
// non-seeking source and under every architecture code, and checks what
// must hold for any input.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ostream>
#include <streambuf>

#include "app/log.h"
#include "packages/package_file.h"
#include "packages/part_reader.h"

namespace {

class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

void check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static NullBuffer buffer;
  static std::ostream quiet(&buffer);
  tarnlift::app::setLogStream(quiet);
  using namespace tarnlift::packages;

  // The first byte picks the architecture code (including codes above 9).
  const uint32_t code = size > 0 ? data[0] % 12 : 0;
  for (bool seekable : {true, false}) {
    MemoryByteSource source(data, size, seekable);
    PackageFileContents contents;
    const bool accepted = readPackageContents(source, "fuzz.npk", code, contents);
    check(source.position() <= size);
    const PackageRecord& record = contents.record;
    if (accepted) {
      check(architectureAccepted(code, record.architecture));
      for (const std::string& name : record.providedNames) check(name.size() <= 16);
      for (const PackageDependency& d : record.dependencies) check(d.name.size() <= 16 && d.maxVersion != 0);
      check(record.constraints.size() >= record.providedNames.size());
      check(contents.description.find('\n') == std::string::npos);
      check(contents.description.find('\r') == std::string::npos);
      check(contents.description.size() <= size);
    }
    check(record.name.size() <= 16);
    (void)shownName(record);
    (void)shownArchitecture(record.architecture);
    (void)shownDescription(contents.description, "fuzz.npk");
  }

  // The bare part reader: every part's reads stay inside the part.
  MemoryByteSource source(data, size);
  PartReader reader(source);
  uint8_t scratch[64];
  for (int type; (type = reader.nextPart({1, 2, 3, 16, 17, 18})) >= 0;) {
    const uint32_t before = reader.remaining();
    const size_t got = reader.read(scratch, sizeof scratch);
    check(got <= before && reader.remaining() == before - got);
  }
  return 0;
}
