// tarnlift bootimage: makes, lists and reads the boot image records that the
// network boot server hands out.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "cli/cli_options.h"
#include "cli/command.h"
#include "netboot/boot_images.h"
#include "web/json_text.h"

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

struct BootImageArguments {
  std::string number;
  std::string file;
  std::string directory;
  std::string path;
  std::string bootImages;
  bool json = false;
};

int wrap(const BootImageArguments& a) {
  int number = 0;
  if (!parseNumber(a.number, number)) return usageError("bootimage wrap: NUMBER must be a decimal number");
  std::ifstream in(a.file, std::ios::binary);
  if (!in) {
    std::cerr << "tarnlift: cannot read " << a.file << "\n";
    return kExitFailed;
  }
  std::vector<uint8_t> content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (content.size() > 0xFFFFFFFFu) {
    std::cerr << "tarnlift: " << a.file << " is too large for a record\n";
    return kExitFailed;
  }
  if (!netboot::directoryExists(a.directory)) {
    std::cerr << "tarnlift: no directory " << a.directory << "\n";
    return kExitFailed;
  }
  std::vector<uint8_t> record = netboot::makeBootImageRecord(content.data(), content.size());
  std::string path = a.directory + "/" + std::to_string(number) + ".bin";
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

int extract(const BootImageArguments& a) {
  if (!a.bootImages.empty()) netboot::setBootImageDirectory(a.bootImages);
  int number = 0;
  if (!parseNumber(a.number, number)) return usageError("bootimage extract: NUMBER must be a decimal number");
  // A missing record is fatal, as for the servers.
  return netboot::writeBootImage(a.path, number) ? kExitOk : kExitFailed;
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

// A record found where the servers would find it, as both listings show it.
struct FoundRecord {
  int number = 0;
  bool valid = false;  // its length field fits what is stored
  uint32_t size = 0;
  std::string place;
  std::string kind;
  std::string use;
};

// The records of every number the servers hand out, in the search order;
// the numbers found nowhere go to `missing`.
std::vector<FoundRecord> findRecords(std::vector<int>& missing) {
  std::vector<FoundRecord> found;
  for (const netboot::BootImageUse& use : netboot::bootImageUses()) {
    netboot::BootImageLocation location;
    if (!netboot::locateBootImage(use.number, location)) {
      missing.push_back(use.number);
      continue;
    }
    netboot::BootImage image;
    FoundRecord record;
    record.number = use.number;
    record.valid = netboot::parseBootImageRecord(location.record, location.storedSize, image);
    record.size = record.valid ? image.length : 0;
    record.place = location.place;
    record.kind = recordKind(location.record, location.storedSize);
    record.use = use.use;
    found.push_back(std::move(record));
  }
  return found;
}

int listJson() {
  nlohmann::json order = nlohmann::json::array();
  for (const netboot::BootImageSource& source : netboot::bootImageSources()) {
    order.push_back({{"place", source.place},
                     {"folder", source.isDirectory},
                     {"present", !source.isDirectory || netboot::directoryExists(source.place)}});
  }
  std::vector<int> missing;
  nlohmann::json records = nlohmann::json::array();
  for (const FoundRecord& record : findRecords(missing)) {
    records.push_back({{"number", record.number},
                       {"size", record.valid ? nlohmann::json(record.size) : nlohmann::json(nullptr)},
                       {"place", record.place},
                       {"kind", record.kind},
                       {"use", record.use}});
  }
  std::cout << web::jsonText({{"searchOrder", order}, {"records", records}, {"missing", missing}},
                             web::JsonCharacters::AsciiEscapes)
            << std::endl;
  return kExitOk;
}

int list(const BootImageArguments& a) {
  if (!a.bootImages.empty()) {
    if (!netboot::directoryExists(a.bootImages)) {
      std::cerr << "tarnlift: no boot image directory " << a.bootImages << "\n";
      return kExitFailed;
    }
    netboot::setBootImageDirectory(a.bootImages);
  }
  if (a.json) return listJson();
  std::cout << "search order:\n";
  for (const netboot::BootImageSource& source : netboot::bootImageSources()) {
    std::cout << "  " << source.place;
    if (source.isDirectory && !netboot::directoryExists(source.place)) std::cout << " (absent)";
    std::cout << "\n";
  }
  std::cout << "records:\n";
  std::vector<int> missing;
  for (const FoundRecord& record : findRecords(missing)) {
    std::cout << "  " << record.number << '\t' << (record.valid ? std::to_string(record.size) : std::string("-"))
              << " bytes\t" << record.place << '\t' << record.kind << '\t' << record.use << "\n";
  }
  std::cout << "missing:";
  for (int number : missing) std::cout << ' ' << number;
  std::cout << (missing.empty() ? " none\n" : "\n");
  return kExitOk;
}

CommandRun defineBootImage(CLI::App& app) {
  auto arguments = std::make_shared<BootImageArguments>();
  app.require_subcommand(1, 1);
  CLI::App* listAction =
      app.add_subcommand("list", "Show the search order, the records found and where, and the missing numbers.");
  addValue(*listAction, "--boot-images", arguments->bootImages, "DIR",
           "Look in this folder instead of the per-user and system folders.");
  addSwitch(*listAction, "--json", arguments->json,
            "Print one JSON object {searchOrder, records, missing} instead of the text.");
  CLI::App* wrapAction = app.add_subcommand("wrap", "Wrap FILE into the record DIR/NUMBER.bin.");
  wrapAction->add_option("NUMBER", arguments->number, "The record's number.")->required()->option_text(" ");
  wrapAction->add_option("FILE", arguments->file, "The boot program or data to wrap.")->required()->option_text(" ");
  wrapAction->add_option("DIR", arguments->directory, "The folder the record goes to.")->required()->option_text(" ");
  CLI::App* extractAction = app.add_subcommand("extract", "Write the content of record NUMBER to the new file PATH.");
  extractAction->add_option("NUMBER", arguments->number, "The record's number.")->required()->option_text(" ");
  extractAction->add_option("PATH", arguments->path, "The file to write.")->required()->option_text(" ");
  addValue(*extractAction, "--boot-images", arguments->bootImages, "DIR",
           "Look in this folder instead of the per-user and system folders.");
  for (CLI::App* action : {listAction, wrapAction, extractAction}) {
    action->set_help_flag("-h,--help", "Print this help and exit.");
    action->allow_extras(true);
  }
  return [arguments, listAction, wrapAction] {
    if (listAction->parsed()) return list(*arguments);
    if (wrapAction->parsed()) return wrap(*arguments);
    return extract(*arguments);
  };
}

const CliCommandRegistrar bootImageCommand(
    {"bootimage",
     "List the boot image records found and where (list), wrap a file into a record (wrap), or write a record's "
     "content to a new file (extract).",
     &defineBootImage});

}  // namespace
}  // namespace tarnlift::cli
