#include "app/settings_file.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "app/atomic_file.h"
#include "app/log.h"
#include "app/settings_tree.h"
#include "app/utc_time.h"

namespace tarnlift::app {

// File layout, one line each:
//   [Key\Path]                 a key (the root is [])
//   "Name"=dword:0000001a      a 32-bit value
//   "Name"="text"              a string with its terminating zero
//   "Name"=hex(7):61,00,00     any other value, type number and bytes
// In quoted texts \\, \" and \xHH stand for a backslash, a quote and a byte.
namespace {

constexpr const char* kHeader = "; Tarnlift settings. Written by the program after every change.";

std::string quote(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '\\' || c == '"') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c >= 0x7F) {
      char hex[5];
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads a quoted text at pos; false when malformed.
bool unquote(const std::string& line, size_t& pos, std::string& out) {
  if (pos >= line.size() || line[pos] != '"') return false;
  ++pos;
  out.clear();
  while (pos < line.size()) {
    char c = line[pos++];
    if (c == '"') return true;
    if (c != '\\') {
      out += c;
      continue;
    }
    if (pos >= line.size()) return false;
    char escaped = line[pos++];
    if (escaped == '\\' || escaped == '"') {
      out += escaped;
    } else if (escaped == 'x' && pos + 1 < line.size() && hexDigit(line[pos]) >= 0 && hexDigit(line[pos + 1]) >= 0) {
      out += static_cast<char>(hexDigit(line[pos]) * 16 + hexDigit(line[pos + 1]));
      pos += 2;
    } else {
      return false;
    }
  }
  return false;
}

bool isPlainString(const SettingsNode::Value& value) {
  if (value.type != ValueType::String || value.data.empty() || value.data.back() != 0) return false;
  for (size_t i = 0; i + 1 < value.data.size(); ++i) {
    if (value.data[i] == 0) return false;
  }
  return true;
}

void writeNode(std::ostringstream& out, const SettingsNode& node, const std::string& path) {
  out << '[' << path << "]\n";
  for (const SettingsNode::Value& value : node.values) {
    out << quote(value.name) << '=';
    if (value.type == ValueType::Integer && value.data.size() == 4) {
      uint32_t number =
          value.data[0] | value.data[1] << 8 | value.data[2] << 16 | static_cast<uint32_t>(value.data[3]) << 24;
      char hex[16];
      std::snprintf(hex, sizeof hex, "dword:%08x", number);
      out << hex;
    } else if (isPlainString(value)) {
      out << quote(std::string(value.data.begin(), value.data.end() - 1));
    } else {
      out << "hex(" << static_cast<uint32_t>(value.type) << "):";
      for (size_t i = 0; i < value.data.size(); ++i) {
        char hex[4];
        std::snprintf(hex, sizeof hex, i == 0 ? "%02x" : ",%02x", value.data[i]);
        out << hex;
      }
    }
    out << '\n';
  }
  for (const auto& [name, child] : node.subKeys) {
    writeNode(out, *child, path.empty() ? child->name : path + "\\" + child->name);
  }
}

bool parseValue(const std::string& line, SettingsNode::Value& value) {
  size_t pos = 0;
  if (!unquote(line, pos, value.name) || pos >= line.size() || line[pos] != '=') return false;
  ++pos;
  std::string rest = line.substr(pos);
  if (!rest.empty() && rest[0] == '"') {
    std::string text;
    size_t textPos = 0;
    if (!unquote(rest, textPos, text) || textPos != rest.size()) return false;
    value.type = ValueType::String;
    value.data.assign(text.begin(), text.end());
    value.data.push_back(0);
    return true;
  }
  if (rest.rfind("dword:", 0) == 0) {
    std::string digits = rest.substr(6);
    if (digits.size() != 8) return false;
    uint32_t number = 0;
    for (char c : digits) {
      if (hexDigit(c) < 0) return false;
      number = number << 4 | static_cast<uint32_t>(hexDigit(c));
    }
    value.type = ValueType::Integer;
    value.data = {static_cast<uint8_t>(number), static_cast<uint8_t>(number >> 8), static_cast<uint8_t>(number >> 16),
                  static_cast<uint8_t>(number >> 24)};
    return true;
  }
  if (rest.rfind("hex(", 0) != 0) return false;
  size_t close = rest.find("):");
  if (close == std::string::npos || close == 4) return false;
  uint32_t type = 0;
  for (size_t i = 4; i < close; ++i) {
    if (rest[i] < '0' || rest[i] > '9') return false;
    type = type * 10 + static_cast<uint32_t>(rest[i] - '0');
  }
  value.type = static_cast<ValueType>(type);
  value.data.clear();
  std::string bytes = rest.substr(close + 2);
  for (size_t i = 0; i < bytes.size(); i += 3) {
    if (i + 1 >= bytes.size() || hexDigit(bytes[i]) < 0 || hexDigit(bytes[i + 1]) < 0) return false;
    if (i + 2 < bytes.size() && bytes[i + 2] != ',') return false;
    value.data.push_back(static_cast<uint8_t>(hexDigit(bytes[i]) * 16 + hexDigit(bytes[i + 1])));
  }
  return true;
}

class SettingsFileStore : public SettingsTreeStore {
 public:
  explicit SettingsFileStore(std::string path) : path_(std::move(path)) { load(); }

  uint32_t persist() override {
    std::ostringstream out;
    out << kHeader << '\n';
    writeNode(out, *root_, "");
    std::error_code ignored;
    std::filesystem::path parent = std::filesystem::path(path_).parent_path();
    if (!parent.empty()) std::filesystem::create_directories(parent, ignored);
    return replaceFileAtomically(path_, out.str());
  }

 private:
  void load() {
    // Writers killed in the middle of a save leave their temporary file.
    removeStaleTemporaries(path_);
    std::error_code error;
    if (!std::filesystem::exists(path_, error)) return;
    auto fresh = std::make_unique<SettingsNode>();
    bool ok = false;
    {
      // Closed before it may be moved aside: Windows renames no open file.
      std::ifstream in(path_, std::ios::binary);
      ok = static_cast<bool>(in) && parse(in, *fresh);
    }
    if (ok) {
      root_ = std::move(fresh);
      return;
    }
    moveAside();
  }

  static bool parse(std::istream& in, SettingsNode& root) {
    SettingsNode* current = nullptr;
    std::string line;
    while (std::getline(in, line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.empty() || line[0] == ';') continue;
      if (line[0] == '[') {
        if (line.back() != ']') return false;
        current = &root;
        for (const std::string& name : splitKeyPath(line.substr(1, line.size() - 2))) {
          auto& child = current->subKeys[name];
          if (child == nullptr) {
            child = std::make_unique<SettingsNode>();
            child->name = name;
          }
          current = child.get();
        }
        continue;
      }
      SettingsNode::Value value;
      if (current == nullptr || !parseValue(line, value)) return false;
      if (SettingsNode::Value* existing = current->findValue(value.name)) {
        *existing = std::move(value);
      } else {
        current->values.push_back(std::move(value));
      }
    }
    return in.eof();
  }

  void moveAside() {
    std::string aside = path_ + ".unreadable-" + utcTextNow(UtcLayout::FileStamp);
    std::error_code error;
    std::filesystem::rename(path_, aside, error);
    if (error) {
      logLine() << "settings: cannot read " << path_ << " and cannot move it aside: " << error.message()
                << "; starting with empty settings";
    } else {
      logLine() << "settings: cannot read " << path_ << ", kept it as " << aside << "; starting with empty settings";
    }
  }

  std::string path_;
};

}  // namespace

std::shared_ptr<SettingsStore> makeFileSettingsStore(const std::string& path) {
  return std::make_shared<SettingsFileStore>(path);
}

std::string defaultSettingsFilePath() {
  std::string base;
  if (const char* config = std::getenv("XDG_CONFIG_HOME"); config != nullptr && config[0] == '/') {
    base = config;
  } else if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != 0) {
    base = std::string(home) + "/.config";
  } else {
    base = ".config";
  }
  return base + "/tarnlift/settings.reg";
}

}  // namespace tarnlift::app
