#include "app/json_writer.h"

#include <cstdio>

namespace tarnlift::app {

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

void JsonObjectWriter::key(std::string_view key) {
  json_ += json_.empty() ? '{' : ',';
  json_ += jsonString(std::string(key));
  json_ += ':';
}

JsonObjectWriter& JsonObjectWriter::text(std::string_view name, const std::string& value) {
  key(name);
  json_ += jsonString(value);
  return *this;
}

JsonObjectWriter& JsonObjectWriter::texts(std::string_view name, const std::vector<std::string>& values) {
  key(name);
  json_ += '[';
  for (size_t i = 0; i < values.size(); ++i) {
    if (i != 0) json_ += ',';
    json_ += jsonString(values[i]);
  }
  json_ += ']';
  return *this;
}

JsonObjectWriter& JsonObjectWriter::number(std::string_view name, uint64_t value) {
  key(name);
  json_ += std::to_string(value);
  return *this;
}

JsonObjectWriter& JsonObjectWriter::fixed(std::string_view name, double value, int decimals) {
  char digits[64];
  std::snprintf(digits, sizeof digits, "%.*f", decimals, value);
  key(name);
  json_ += digits;
  return *this;
}

JsonObjectWriter& JsonObjectWriter::boolean(std::string_view name, bool value) {
  key(name);
  json_ += value ? "true" : "false";
  return *this;
}

std::string JsonObjectWriter::str() const { return json_.empty() ? "{}" : json_ + '}'; }

}  // namespace tarnlift::app
