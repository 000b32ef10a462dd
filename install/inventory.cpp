#include "install/inventory.h"

#include <fstream>
#include <sstream>

#include "install/install_choices.h"

namespace tarnlift::install {

namespace {

std::string trim(const std::string& text) {
  const char* space = " \t\r";
  size_t first = text.find_first_not_of(space);
  if (first == std::string::npos) return {};
  size_t last = text.find_last_not_of(space);
  return text.substr(first, last - first + 1);
}

bool parseYesNo(const std::string& text, bool& value) {
  if (text == "yes" || text == "true" || text == "1") {
    value = true;
    return true;
  }
  if (text == "no" || text == "false" || text == "0") {
    value = false;
    return true;
  }
  return false;
}

bool isDecimal(const std::string& text) {
  if (text.empty() || text.size() > 2) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

// A strict dotted quad (net/address.h) that names an address: neither
// 0.0.0.0 nor 255.255.255.255, which the address controls read as none.
bool isDottedQuad(const std::string& text) {
  uint32_t address = 0;
  return net::parseDottedQuad(text, address) && addressFromText(text) != 0;
}

bool readableFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return static_cast<bool>(in);
}

std::string joinPath(const std::string& folder, const std::string& path) {
  if (folder.empty() || path.empty()) return path;
  if (path[0] == '/' || path[0] == '\\' || (path.size() > 1 && path[1] == ':')) return path;
  char last = folder.back();
  return folder + ((last == '/' || last == '\\') ? "" : "/") + path;
}

std::vector<std::string> splitList(const std::string& text) {
  std::vector<std::string> items;
  std::stringstream stream(text);
  std::string item;
  while (std::getline(stream, item, ',')) {
    item = trim(item);
    if (!item.empty()) items.push_back(item);
  }
  return items;
}

}  // namespace

bool Inventory::load(const std::string& path, const SetCheck& setExists, std::string& error) {
  entries_.clear();
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    error = path + ": cannot read the inventory";
    return false;
  }
  std::stringstream text;
  text << in.rdbuf();
  std::string folder;
  size_t slash = path.find_last_of("/\\");
  if (slash != std::string::npos) folder = path.substr(0, slash + 1);
  return parse(text.str(), path, folder, setExists, error);
}

bool Inventory::parse(const std::string& text, const std::string& name, const std::string& folder,
                      const SetCheck& setExists, std::string& error) {
  entries_.clear();
  std::map<MacAddress, InventoryEntry> read;
  InventoryEntry* current = nullptr;
  std::stringstream stream(text);
  std::string raw;
  int lineNumber = 0;
  auto refuse = [&](const std::string& what) {
    error = name + ":" + std::to_string(lineNumber) + ": " + what;
    return false;
  };
  while (std::getline(stream, raw)) {
    ++lineNumber;
    std::string line = trim(raw);
    if (lineNumber == 1 && line.rfind("\xEF\xBB\xBF", 0) == 0) line = trim(line.substr(3));
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      if (line.back() != ']') return refuse("a section is [MAC], such as [4C:5E:0C:01:02:03]");
      std::string macPart = trim(line.substr(1, line.size() - 2));
      MacAddress mac{};
      if (!parseMac(macPart, mac)) return refuse("'" + macPart + "' is not a MAC such as 4C:5E:0C:01:02:03");
      if (read.count(mac) != 0) {
        return refuse(macText(mac) + " is already listed on line " + std::to_string(read[mac].line));
      }
      current = &read[mac];
      current->mac = mac;
      current->line = lineNumber;
      continue;
    }
    size_t equals = line.find('=');
    if (equals == std::string::npos) return refuse("expected key = value or [MAC]");
    if (current == nullptr) return refuse("a value before the first [MAC] section");
    std::string key = trim(line.substr(0, equals));
    std::string value = trim(line.substr(equals + 1));
    InventoryEntry& e = *current;
    if (key == "label") {
      e.label = value;
    } else if (key == "address") {
      size_t slash = value.find('/');
      std::string address = value.substr(0, slash);
      std::string bits = slash == std::string::npos ? "" : value.substr(slash + 1);
      if (!isDottedQuad(address) || !isDecimal(bits) || std::stoi(bits) < 1 || std::stoi(bits) > 32) {
        return refuse("bad address '" + value + "': expected A.B.C.D/BITS such as 10.0.0.5/24");
      }
      e.choices.values.address = addressFromText(address);
      e.choices.values.netmaskBits = netmaskBitsFromText(bits);
      e.choices.keys |= GivenChoices::kAddress;
    } else if (key == "gateway") {
      if (!isDottedQuad(value)) return refuse("bad gateway '" + value + "': expected A.B.C.D");
      e.choices.values.gateway = addressFromText(value);
      e.choices.keys |= GivenChoices::kGateway;
    } else if (key == "script" || key == "mode-script") {
      std::string path = joinPath(folder, value);
      if (value.empty() || !readableFile(path)) return refuse("cannot read the " + key + " file '" + path + "'");
      (key == "script" ? e.choices.values.scriptPath : e.choices.values.modeScriptPath) = path;
      e.choices.keys |= key == "script" ? GivenChoices::kScript : GivenChoices::kModeScript;
    } else if (key == "set") {
      if (value.empty() || (setExists && !setExists(value))) return refuse("no package set named '" + value + "'");
      e.setName = value;
    } else if (key == "select") {
      std::vector<std::string> files = splitList(value);
      if (files.empty()) return refuse("select needs one or more package file names, separated by commas");
      e.select = files;
    } else if (key == "keep-config" || key == "default-config" || key == "keep-branding") {
      bool flag = false;
      if (!parseYesNo(value, flag)) return refuse(key + " needs yes or no, not '" + value + "'");
      InstallChoices& v = e.choices.values;
      (key == "keep-config" ? v.keepConfig : key == "default-config" ? v.defaultConfig : v.keepBranding) = flag;
      e.choices.keys |= key == "keep-config"      ? GivenChoices::kKeepConfig
                        : key == "default-config" ? GivenChoices::kDefaultConfig
                                                  : GivenChoices::kKeepBranding;
    } else if (key == "after") {
      if (value == "reboot") {
        e.after = AfterInstall::Reboot;
      } else if (value == "shutdown") {
        e.after = AfterInstall::Shutdown;
      } else if (value == "none") {
        e.after = AfterInstall::None;
      } else {
        return refuse("after needs reboot, shutdown or none, not '" + value + "'");
      }
    } else {
      return refuse("unknown key '" + key + "'");
    }
    if (e.setName && e.select) return refuse("set and select exclude each other");
  }
  entries_ = std::move(read);
  return true;
}

const InventoryEntry* Inventory::find(const MacAddress& mac) const {
  auto it = entries_.find(mac);
  return it == entries_.end() ? nullptr : &it->second;
}

void applyInventoryEntry(const InventoryEntry& e, InstallChoices& choices, std::string& setName,
                         std::vector<std::string>& select) {
  e.choices.layOver(choices);
  if (e.setName) {
    setName = *e.setName;
    select.clear();
  }
  if (e.select) {
    select = *e.select;
    setName.clear();
  }
}

std::vector<std::string> tickFiles(packages::PackageCatalogue& catalogue, const std::vector<std::string>& names,
                                   std::vector<std::string>& files) {
  std::vector<std::string> notListed;
  for (const std::string& name : names) {
    int index = catalogue.findByFileName(name);
    if (index < 0) {
      notListed.push_back(name);
      continue;
    }
    size_t i = static_cast<size_t>(index);
    if (catalogue.canToggle(i) && !catalogue.record(i).selected) catalogue.toggle(i, files);
  }
  return notListed;
}

}  // namespace tarnlift::install
