// tarnlift bootimage: makes and reads the boot image records that the
// network boot server hands out.
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

int runBootImage(const std::vector<std::string>& arguments) {
  if (arguments.empty()) return usageError("usage: bootimage wrap NUMBER FILE DIR | extract NUMBER PATH");
  if (arguments[0] == "wrap") return wrap(arguments);
  if (arguments[0] == "extract") return extract(arguments);
  return usageError("bootimage: unknown action '" + arguments[0] + "' (wrap or extract)");
}

const CliCommandRegistrar bootImageCommand(
    {"bootimage", "wrap NUMBER FILE DIR | extract NUMBER PATH [--boot-images DIR]",
     "Wrap a file into boot image record DIR/NUMBER.bin, or write a record's content to a new file.", &runBootImage});

}  // namespace
}  // namespace tarnlift::cli
