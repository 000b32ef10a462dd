#include "tools/mkpkg/package_writer.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "packages/version.h"

namespace tarnlift::mkpkg {
namespace {

void put16(std::vector<uint8_t>& out, uint16_t value) {
  out.push_back(static_cast<uint8_t>(value));
  out.push_back(static_cast<uint8_t>(value >> 8));
}

void put32(std::vector<uint8_t>& out, uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

void putName(std::vector<uint8_t>& out, const std::string& name) {
  for (size_t i = 0; i < 16; ++i) out.push_back(i < name.size() ? static_cast<uint8_t>(name[i]) : 0);
}

std::vector<uint8_t> partHeader(uint16_t type, uint32_t length) {
  std::vector<uint8_t> header;
  put16(header, type);
  put32(header, length);
  return header;
}

}  // namespace

PackageWriter& PackageWriter::append(std::vector<uint8_t> bytes, uint64_t zeros) {
  pieces_.push_back({std::move(bytes), zeros});
  return *this;
}

PackageWriter& PackageWriter::magic(uint32_t value) {
  magic_ = value;
  return *this;
}

PackageWriter& PackageWriter::nameEntry(uint16_t type, const std::string& name, uint32_t version) {
  std::vector<uint8_t> payload;
  putName(payload, name);
  put32(payload, version);
  payload.resize(32, 0);
  return part(type, payload);
}

PackageWriter& PackageWriter::package(const std::string& name, uint32_t version) { return nameEntry(1, name, version); }

PackageWriter& PackageWriter::group(const std::string& name, uint32_t version) { return nameEntry(18, name, version); }

PackageWriter& PackageWriter::architecture(const std::string& text) {
  return part(16, std::vector<uint8_t>(text.begin(), text.end()));
}

PackageWriter& PackageWriter::description(const std::string& text) {
  return part(2, std::vector<uint8_t>(text.begin(), text.end()));
}

PackageWriter& PackageWriter::dependencies(const std::vector<DependencyEntry>& entries) {
  return entryList(3, static_cast<uint16_t>(entries.size()), entries);
}

PackageWriter& PackageWriter::exclusions(const std::vector<DependencyEntry>& entries) {
  return entryList(17, static_cast<uint16_t>(entries.size()), entries);
}

PackageWriter& PackageWriter::entryList(uint16_t type, uint16_t count, const std::vector<DependencyEntry>& entries) {
  std::vector<uint8_t> payload;
  put16(payload, count);
  for (const DependencyEntry& entry : entries) {
    putName(payload, entry.name);
    put32(payload, entry.minVersion);
    put32(payload, 0);
    put32(payload, entry.maxVersion);
    put32(payload, 0);
  }
  return part(type, payload);
}

PackageWriter& PackageWriter::part(uint16_t type, const std::vector<uint8_t>& payload) {
  return partWithLength(type, static_cast<uint32_t>(payload.size()), payload);
}

PackageWriter& PackageWriter::partWithLength(uint16_t type, uint32_t declaredLength,
                                             const std::vector<uint8_t>& payload) {
  std::vector<uint8_t> bytes = partHeader(type, declaredLength);
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return append(std::move(bytes));
}

PackageWriter& PackageWriter::data(uint64_t size) {
  return append(partHeader(kDataPart, static_cast<uint32_t>(std::min<uint64_t>(size, UINT32_MAX))), size);
}

PackageWriter& PackageWriter::truncateAt(uint64_t size) {
  truncateAt_ = size;
  return *this;
}

uint64_t PackageWriter::size() const {
  uint64_t total = 8;
  for (const Piece& piece : pieces_) total += piece.bytes.size() + piece.zeros;
  return std::min(total, truncateAt_);
}

std::vector<uint8_t> PackageWriter::bytes() const {
  uint64_t full = 8;
  for (const Piece& piece : pieces_) full += piece.bytes.size() + piece.zeros;
  std::vector<uint8_t> out;
  put32(out, magic_);
  put32(out, static_cast<uint32_t>(full - 8));
  for (const Piece& piece : pieces_) {
    out.insert(out.end(), piece.bytes.begin(), piece.bytes.end());
    out.resize(out.size() + piece.zeros, 0);
    if (out.size() >= truncateAt_) break;
  }
  if (out.size() > truncateAt_) out.resize(truncateAt_);
  return out;
}

bool PackageWriter::writeFile(const std::string& path) const {
  uint64_t full = 8;
  for (const Piece& piece : pieces_) full += piece.bytes.size() + piece.zeros;
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) return false;
    std::vector<uint8_t> header;
    put32(header, magic_);
    put32(header, static_cast<uint32_t>(full - 8));
    out.write(reinterpret_cast<const char*>(header.data()), static_cast<std::streamsize>(header.size()));
    uint64_t position = header.size();
    for (const Piece& piece : pieces_) {
      if (position >= truncateAt_) break;
      out.write(reinterpret_cast<const char*>(piece.bytes.data()), static_cast<std::streamsize>(piece.bytes.size()));
      position += piece.bytes.size() + piece.zeros;
      // Zero runs are left as holes: seeking past them and extending the
      // file at the end gives zeros without writing them.
      if (piece.zeros != 0) out.seekp(static_cast<std::streamoff>(position));
    }
    if (!out) return false;
  }
  std::error_code error;
  std::filesystem::resize_file(path, std::min(full, truncateAt_), error);
  return !error;
}

bool parseVersionArgument(const std::string& text, uint32_t& version) {
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text.c_str() + 2, &end, 16);
    if (end == nullptr || *end != 0 || value > UINT32_MAX) return false;
    version = static_cast<uint32_t>(value);
    return true;
  }
  if (text == "0") {
    version = 0;
    return true;
  }
  version = packages::parseVersion(text);
  return version != 0;
}

bool parseDependencyArgument(const std::string& text, DependencyEntry& entry) {
  const size_t first = text.find(':');
  entry = DependencyEntry{};
  entry.name = text.substr(0, first);
  if (entry.name.empty()) return false;
  if (first == std::string::npos) return true;
  const size_t second = text.find(':', first + 1);
  if (!parseVersionArgument(
          text.substr(first + 1, second == std::string::npos ? std::string::npos : second - first - 1),
          entry.minVersion)) {
    return false;
  }
  if (second == std::string::npos) return true;
  return parseVersionArgument(text.substr(second + 1), entry.maxVersion);
}

}  // namespace tarnlift::mkpkg
