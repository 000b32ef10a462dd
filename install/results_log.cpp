#include "install/results_log.h"

#include <cerrno>
#include <cstring>

#include "app/utc_time.h"

namespace tarnlift {

namespace {

void appendEscape(std::string& out, uint32_t unit) {
  static const char* hex = "0123456789abcdef";
  out += "\\u";
  for (int shift = 12; shift >= 0; shift -= 4) out += hex[(unit >> shift) & 15];
}

void appendCodePoint(std::string& out, uint32_t cp) {
  if (cp >= 0x10000) {
    cp -= 0x10000;
    appendEscape(out, 0xD800 + (cp >> 10));
    appendEscape(out, 0xDC00 + (cp & 0x3FF));
  } else {
    appendEscape(out, cp);
  }
}

// Length of the valid UTF-8 sequence at `i` with its code point; 0 if none.
size_t utf8Sequence(const std::string& s, size_t i, uint32_t& cp) {
  auto byte = [&s](size_t k) { return static_cast<uint8_t>(s[k]); };
  uint8_t b = byte(i);
  size_t length = b >= 0xF0 && b <= 0xF4 ? 4 : b >= 0xE0 ? 3 : b >= 0xC2 && b <= 0xDF ? 2 : 0;
  if (length == 0 || i + length > s.size()) return 0;
  cp = b & (length == 2 ? 0x1F : length == 3 ? 0x0F : 0x07);
  for (size_t k = 1; k < length; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
    cp = cp << 6 | (byte(i + k) & 0x3F);
  }
  static const uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < smallest[length] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return length;
}

}  // namespace

std::string jsonString(const std::string& s) {
  std::string out = "\"";
  for (size_t i = 0; i < s.size();) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x20 || c == 0x7F) {
      appendEscape(out, c);
    } else if (c < 0x80) {
      out += static_cast<char>(c);
    } else {
      uint32_t cp = 0;
      size_t length = utf8Sequence(s, i, cp);
      if (length == 0) {
        appendEscape(out, 0xFFFD);
        ++i;
        continue;
      }
      appendCodePoint(out, cp);
      i += length;
      continue;
    }
    ++i;
  }
  out += '"';
  return out;
}

std::string resultJsonLine(const RouterResult& r) {
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.3f", r.seconds);
  std::string line;
  auto field = [&line](const char* key, const std::string& json) {
    line += line.empty() ? '{' : ',';
    line += '"';
    line += key;
    line += "\":";
    line += json;
  };
  auto array = [](const std::vector<std::string>& strings) {
    std::string json = "[";
    for (size_t i = 0; i < strings.size(); ++i) {
      if (i != 0) json += ',';
      json += jsonString(strings[i]);
    }
    json += ']';
    return json;
  };
  field("time", jsonString(r.time));
  field("mac", jsonString(r.mac));
  field("label", jsonString(r.label));
  field("architecture", jsonString(r.architecture));
  field("address", jsonString(r.address));
  field("files", array(r.files));
  field("versions", array(r.versions));
  field("bytes", std::to_string(r.bytes));
  field("seconds", seconds);
  field("result", r.success ? "\"installed\"" : "\"failed\"");
  field("confirmed", r.confirmed ? "true" : "false");
  field("text", jsonString(r.text));
  line += '}';
  return line;
}

std::string utcTimestamp() { return utcTextNow(UtcLayout::Iso); }

ResultsLog::~ResultsLog() {
  if (file_ != nullptr) std::fclose(file_);
}

bool ResultsLog::open(const std::string& path, std::string& error) {
  if (file_ != nullptr) std::fclose(file_);
  file_ = std::fopen(path.c_str(), "ab");
  if (file_ == nullptr) {
    error = "cannot open " + path + " for the results: " + std::strerror(errno);
    return false;
  }
  return true;
}

void ResultsLog::write(const RouterResult& result) {
  if (file_ == nullptr) return;
  std::string line = resultJsonLine(result) + "\n";
  std::fwrite(line.data(), 1, line.size(), file_);
  std::fflush(file_);
}

}  // namespace tarnlift
