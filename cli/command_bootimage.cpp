// tarnlift bootimage: makes, lists and reads the boot image records that the
// network boot server hands out.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "cli/command.h"
#include "netboot/boot_images.h"

namespace tarnlift::cli {
namespace {

bool parseNumber(const std::string& text, int& number) {
  if (text.empty() || text.size() > 9) return false;
  number = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    number = number * 10 + (c - '0');
  }
  return true;
}

int wrap(const std::vector<std::string>& arguments) {
  if (arguments.size() != 4) return usageError("usage: bootimage wrap NUMBER FILE DIR");
  int number = 0;
  if (!parseNumber(arguments[1], number)) return usageError("bootimage wrap: NUMBER must be a decimal number");
  std::ifstream in(arguments[2], std::ios::binary);
  if (!in) {
    std::cerr << "tarnlift: cannot read " << arguments[2] << "\n";
    return kExitFailed;
  }
  std::vector<uint8_t> content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (content.size() > 0xFFFFFFFFu) {
    std::cerr << "tarnlift: " << arguments[2] << " is too large for a record\n";
    return kExitFailed;
  }
  if (!netboot::directoryExists(arguments[3])) {
    std::cerr << "tarnlift: no directory " << arguments[3] << "\n";
    return kExitFailed;
  }
  std::vector<uint8_t> record = netboot::makeBootImageRecord(content.data(), content.size());
  std::string path = arguments[3] + "/" + std::to_string(number) + ".bin";
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(record.data()), static_cast<std::streamsize>(record.size()));
  out.close();
  if (!out) {
    std::cerr << "tarnlift: cannot write " << path << "\n";
    return kExitFailed;
  }
  std::cout << path << " " << content.size() << "\n";
  return kExitOk;
}

int extract(const std::vector<std::string>& arguments) {
  std::vector<std::string> rest;
  for (size_t i = 1; i < arguments.size(); ++i) {
    if (arguments[i] == "--boot-images" && i + 1 < arguments.size()) {
      netboot::setBootImageDirectory(arguments[++i]);
    } else {
      rest.push_back(arguments[i]);
    }
  }
  if (rest.size() != 2) return usageError("usage: bootimage extract NUMBER PATH [--boot-images DIR]");
  int number = 0;
  if (!parseNumber(rest[0], number)) return usageError("bootimage extract: NUMBER must be a decimal number");
  // A missing record is fatal, as for the servers.
  return netboot::writeBootImage(rest[1], number) ? kExitOk : kExitFailed;
}

// What a record is, as far as a deployer cares: one of the test images the
// tree ships, the placeholder for 143, or anything else (a real image).
std::string recordKind(const uint8_t* record, size_t storedSize) {
  netboot::BootImage image;
  if (!netboot::parseBootImageRecord(record, storedSize, image)) return "BAD RECORD (shorter than its length field)";
  const char* testHead = "TARNLIFT TEST BOOT IMAGE ";
  const size_t testLength = std::strlen(testHead);
  if (image.length >= testLength && std::memcmp(image.data, testHead, testLength) == 0) {
    return "test image, boots nothing";
  }
  const std::string marker = "TARNLIFT PLACEHOLDER BOOT IMAGE";
  const uint8_t* end = image.data + std::min<uint32_t>(image.length, 65536);
  if (std::search(image.data, end, marker.begin(), marker.end()) != end) return "placeholder, says what is missing";
  return "image";
}

int list(const std::vector<std::string>& arguments) {
  for (size_t i = 1; i < arguments.size(); ++i) {
    if (arguments[i] == "--boot-images" && i + 1 < arguments.size()) {
      const std::string& directory = arguments[++i];
      if (!netboot::directoryExists(directory)) {
        std::cerr << "tarnlift: no boot image directory " << directory << "\n";
        return kExitFailed;
      }
      netboot::setBootImageDirectory(directory);
    } else {
      return usageError("usage: bootimage list [--boot-images DIR]");
    }
  }
  std::cout << "search order:\n";
  for (const netboot::BootImageSource& source : netboot::bootImageSources()) {
    std::cout << "  " << source.place;
    if (source.isDirectory && !netboot::directoryExists(source.place)) std::cout << " (absent)";
    std::cout << "\n";
  }
  std::cout << "records:\n";
  std::vector<int> missing;
  for (const netboot::BootImageUse& use : netboot::bootImageUses()) {
    netboot::BootImageLocation location;
    if (!netboot::locateBootImage(use.number, location)) {
      missing.push_back(use.number);
      continue;
    }
    netboot::BootImage image;
    const bool valid = netboot::parseBootImageRecord(location.record, location.storedSize, image);
    std::cout << "  " << use.number << '\t' << (valid ? std::to_string(image.length) : std::string("-")) << " bytes\t"
              << location.place << '\t' << recordKind(location.record, location.storedSize) << '\t' << use.use
              << "\n";
  }
  std::cout << "missing:";
  for (int number : missing) std::cout << ' ' << number;
  std::cout << (missing.empty() ? " none\n" : "\n");
  return kExitOk;
}

int runBootImage(const std::vector<std::string>& arguments) {
  if (arguments.empty()) return usageError("usage: bootimage list | wrap NUMBER FILE DIR | extract NUMBER PATH");
  if (arguments[0] == "list") return list(arguments);
  if (arguments[0] == "wrap") return wrap(arguments);
  if (arguments[0] == "extract") return extract(arguments);
  return usageError("bootimage: unknown action '" + arguments[0] + "' (list, wrap or extract)");
}

const CliCommandRegistrar bootImageCommand(
    {"bootimage", "list [--boot-images DIR] | wrap NUMBER FILE DIR | extract NUMBER PATH [--boot-images DIR]",
     "List the boot image records found and where, wrap a file into record DIR/NUMBER.bin, or write a record's "
     "content to a new file.",
     &runBootImage});

}  // namespace
}  // namespace tarnlift::cli
