// tarnlift-mkpkg: writes a package file from options given in file order.
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "tools/mkpkg/package_writer.h"

namespace {

using tarnlift::mkpkg::DependencyEntry;
using tarnlift::mkpkg::PackageWriter;

const char* const kUsage =
    "usage: tarnlift-mkpkg OUTPUT.npk [PART OPTIONS...]\n"
    "Writes a package file; the parts come in the order of the options.\n"
    "  --magic HEX                 container magic (default 0xBAD0F11E; 0xA1100FFB also valid)\n"
    "  --package NAME VERSION      package header (type 1), e.g. --package system 6.41\n"
    "  --group NAME VERSION        group header (type 18)\n"
    "  --arch TEXT                 architecture part (type 16), e.g. mipsel\n"
    "  --description TEXT          description part (type 2)\n"
    "  --depends NAME[:MIN[:MAX]]  dependency part (type 3); repeat the entries comma-separated\n"
    "  --excludes NAME[:MIN[:MAX]] exclusion part (type 17), same form\n"
    "  --part TYPE HEXBYTES        any part with the given payload\n"
    "  --data SIZE                 a data part of SIZE zero bytes (sparse on disk)\n"
    "  --truncate SIZE             cut the file after SIZE bytes\n"
    "Versions are written as 6.41, 6.41rc2, 6.40.1 ... or as 0x06296600; MAX 0 means any.\n";

int fail(const std::string& message) {
  std::cerr << "tarnlift-mkpkg: " << message << "\n";
  return 2;
}

bool parseNumber(const std::string& text, uint64_t& value) {
  if (text.empty()) return false;
  char* end = nullptr;
  value = std::strtoull(text.c_str(), &end, 0);
  return end != nullptr && *end == 0;
}

bool parseEntries(const std::string& text, std::vector<DependencyEntry>& entries) {
  size_t start = 0;
  while (start <= text.size()) {
    const size_t comma = text.find(',', start);
    DependencyEntry entry;
    if (!tarnlift::mkpkg::parseDependencyArgument(text.substr(start, comma - start), entry)) return false;
    entries.push_back(entry);
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return true;
}

bool parseHexBytes(const std::string& text, std::vector<uint8_t>& bytes) {
  if (text.size() % 2 != 0) return false;
  for (size_t i = 0; i < text.size(); i += 2) {
    char* end = nullptr;
    const std::string pair = text.substr(i, 2);
    const unsigned long value = std::strtoul(pair.c_str(), &end, 16);
    if (end == nullptr || *end != 0) return false;
    bytes.push_back(static_cast<uint8_t>(value));
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "--help" || args[0] == "-h") {
    (args.empty() ? std::cerr : std::cout) << kUsage;
    return args.empty() ? 2 : 0;
  }
  PackageWriter writer;
  const std::string output = args[0];
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& option = args[i];
    auto value = [&](size_t n) -> const std::string* {
      if (i + n >= args.size()) return nullptr;
      return &args[i + n];
    };
    if (option == "--package" || option == "--group") {
      uint32_t version = 0;
      if (!value(2) || !tarnlift::mkpkg::parseVersionArgument(*value(2), version)) {
        return fail(option + " needs NAME VERSION");
      }
      if (option == "--package") {
        writer.package(*value(1), version);
      } else {
        writer.group(*value(1), version);
      }
      i += 2;
    } else if (option == "--magic" || option == "--data" || option == "--truncate") {
      uint64_t number = 0;
      if (!value(1) || !parseNumber(*value(1), number)) return fail(option + " needs a number");
      if (option == "--magic") {
        writer.magic(static_cast<uint32_t>(number));
      } else if (option == "--data") {
        writer.data(number);
      } else {
        writer.truncateAt(number);
      }
      i += 1;
    } else if (option == "--arch" || option == "--description") {
      if (!value(1)) return fail(option + " needs a text");
      if (option == "--arch") {
        writer.architecture(*value(1));
      } else {
        writer.description(*value(1));
      }
      i += 1;
    } else if (option == "--depends" || option == "--excludes") {
      std::vector<DependencyEntry> entries;
      if (!value(1) || !parseEntries(*value(1), entries)) return fail(option + " needs NAME[:MIN[:MAX]],...");
      if (option == "--depends") {
        writer.dependencies(entries);
      } else {
        writer.exclusions(entries);
      }
      i += 1;
    } else if (option == "--part") {
      uint64_t type = 0;
      std::vector<uint8_t> payload;
      if (!value(2) || !parseNumber(*value(1), type) || type > 0xFFFF || !parseHexBytes(*value(2), payload)) {
        return fail("--part needs TYPE HEXBYTES");
      }
      writer.part(static_cast<uint16_t>(type), payload);
      i += 2;
    } else {
      return fail("unknown option '" + option + "' (try --help)");
    }
  }
  if (!writer.writeFile(output)) return fail("cannot write " + output);
  return 0;
}
