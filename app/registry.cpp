#include "app/registry.h"

#include <cstring>

#include "app/failure.h"

namespace tarnlift::app {

Registry::~Registry() {
  if (key_ != nullptr) close();
}

void Registry::openRoot(const std::string& path, uint32_t access, std::shared_ptr<SettingsStore> store) {
  if (key_ != nullptr) close();
  store_ = store != nullptr ? std::move(store) : defaultSettingsStore();
  uint32_t error = 0;
  key_ = store_->openRoot(path, error);
  if (key_ == nullptr) fatalFailure("RegCreateKeyEx", error);
  access_ = access;
  path_ = path;
}

void Registry::openSubKey(Registry& parent, const std::string& name, uint32_t access) {
  if (key_ != nullptr) close();
  uint32_t error = 0;
  if (parent.key_ != nullptr) key_ = parent.key_->createSubKey(name, error);
  if (key_ == nullptr) fatalFailure("RegCreateKeyEx", error);
  store_ = parent.store_;
  access_ = access != 0 ? access : parent.access_;
  path_ = parent.path_ + "\\" + name;
}

void Registry::close() {
  if (key_ == nullptr) return;
  uint32_t error = key_->close();
  key_.reset();
  if (error != 0) fatalFailure("RegCloseKey", error);
}

uint32_t Registry::readInt(const std::string& name, uint32_t defaultValue) {
  ValueType type{};
  std::vector<uint8_t> data;
  if (key_ == nullptr || !key_->query(name, type, data) || data.size() > 4) return defaultValue;
  uint8_t scratch[4] = {};
  std::memcpy(scratch, data.data(), data.size());
  return static_cast<uint32_t>(scratch[0]) | static_cast<uint32_t>(scratch[1]) << 8 |
         static_cast<uint32_t>(scratch[2]) << 16 | static_cast<uint32_t>(scratch[3]) << 24;
}

std::string Registry::readString(const std::string& name, const std::string& defaultValue) {
  ValueType type{};
  std::vector<uint8_t> data;
  if (key_ == nullptr || !key_->query(name, type, data) || data.size() > kScratchSize) return defaultValue;
  std::string text(data.begin(), data.end());
  size_t end = text.find('\0');
  if (end != std::string::npos) text.resize(end);
  return text;
}

void Registry::readMultiString(const std::string& name, std::list<std::string>& list) {
  ValueType type{};
  std::vector<uint8_t> data;
  if (key_ == nullptr || !key_->query(name, type, data) || data.size() >= kScratchSize) return;
  list.clear();
  // The final zero closes the list; everything before it is zero-ended strings.
  size_t used = data.empty() ? 0 : data.size() - 1;
  size_t start = 0;
  while (start < used) {
    size_t end = start;
    while (end < used && data[end] != 0) ++end;
    list.emplace_back(reinterpret_cast<const char*>(data.data()) + start, end - start);
    start = end + 1;
  }
}

size_t Registry::readBinary(const std::string& name, void* buffer, size_t size) {
  ValueType type{};
  std::vector<uint8_t> data;
  if (key_ == nullptr || !key_->query(name, type, data) || data.size() > size) return 0;
  if (!data.empty()) std::memcpy(buffer, data.data(), data.size());
  return data.size();
}

size_t Registry::valueSize(const std::string& name) {
  ValueType type{};
  std::vector<uint8_t> data;
  if (key_ == nullptr || !key_->query(name, type, data)) return 0;
  return data.size();
}

ValueType Registry::valueType(const std::string& name) {
  ValueType type{};
  std::vector<uint8_t> data;
  if (key_ == nullptr || !key_->query(name, type, data)) fatalFailure("Registry::getType RegQueryValueEx", 2);
  return type;
}

void Registry::writeInt(const std::string& name, uint32_t value) {
  uint8_t bytes[4] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value >> 16),
                      static_cast<uint8_t>(value >> 24)};
  uint32_t error = key_ != nullptr ? key_->set(name, ValueType::Integer, bytes, sizeof bytes) : 6;
  if (error != 0) fatalFailure("int RegSetValueEx", error);
}

void Registry::writeString(const std::string& name, const std::string& text) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.c_str());
  uint32_t error = key_ != nullptr ? key_->set(name, ValueType::String, bytes, text.size() + 1) : 6;
  if (error != 0) fatalFailure("str RegSetValueEx", error);
}

void Registry::writeMultiString(const std::string& name, const std::list<std::string>& list) {
  std::vector<uint8_t> bytes;
  for (const std::string& text : list) {
    bytes.insert(bytes.end(), text.begin(), text.end());
    bytes.push_back(0);
  }
  bytes.push_back(0);
  uint32_t error = key_ != nullptr ? key_->set(name, ValueType::MultiString, bytes.data(), bytes.size()) : 6;
  if (error != 0) fatalFailure("multistr RegSetValueEx", error);
}

void Registry::writeBinary(const std::string& name, const void* data, size_t size) {
  uint32_t error = key_ != nullptr ? key_->set(name, ValueType::Binary, static_cast<const uint8_t*>(data), size) : 6;
  if (error != 0) fatalFailure("bin RegSetValueEx", error);
}

uint32_t Registry::deleteSubKey(const std::string& name) {
  if (key_ == nullptr) return 6;
  return key_->deleteSubKey(name);
}

uint32_t Registry::deleteValue(const std::string& name) {
  if (key_ == nullptr) return 6;
  return key_->deleteValue(name);
}

bool Registry::enumSubKey(uint32_t index, std::string& name) {
  if (key_ == nullptr) return false;
  uint32_t error = key_->enumSubKey(index, name);
  if (error == 0) return true;
  if (error == SettingsKey::kEndOfList) return false;
  fatalFailure("RegEnumKey", error);
}

bool Registry::enumValue(uint32_t index, ValueType& type, std::string& name) {
  if (key_ == nullptr) return false;
  return key_->enumValue(index, type, name);
}

}  // namespace tarnlift::app
