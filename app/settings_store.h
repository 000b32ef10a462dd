// The per-user key-value store behind Registry: the Windows registry on
// Windows, a settings file on Linux, memory in tests. Keys hold typed values
// and sub-keys; key and value names compare without regard to case.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tarnlift::app {

// Value types, numbered as the Windows registry numbers them.
enum class ValueType : uint32_t {
  None = 0,
  String = 1,
  Binary = 3,
  Integer = 4,
  MultiString = 7,
};

// One open key. Calls that can fail return a system error code, 0 for
// success; the Registry wrapper turns failures into fatal reports.
class SettingsKey {
 public:
  virtual ~SettingsKey() = default;
  virtual std::unique_ptr<SettingsKey> createSubKey(const std::string& name, uint32_t& error) = 0;
  // False when the value is absent.
  virtual bool query(const std::string& name, ValueType& type, std::vector<uint8_t>& data) = 0;
  virtual uint32_t set(const std::string& name, ValueType type, const uint8_t* data, size_t size) = 0;
  virtual uint32_t deleteSubKey(const std::string& name) = 0;
  virtual uint32_t deleteValue(const std::string& name) = 0;
  // 0 with the name, kEndOfList past the last sub-key, any other code on failure.
  virtual uint32_t enumSubKey(uint32_t index, std::string& name) = 0;
  virtual bool enumValue(uint32_t index, ValueType& type, std::string& name) = 0;
  virtual uint32_t close() = 0;

  static constexpr uint32_t kEndOfList = 259;  // "no more data"
};

class SettingsStore {
 public:
  virtual ~SettingsStore() = default;
  // Opens path (backslash-separated) under the current user's root,
  // creating the keys that are missing.
  virtual std::unique_ptr<SettingsKey> openRoot(const std::string& path, uint32_t& error) = 0;
};

// The platform's own per-user store.
std::shared_ptr<SettingsStore> platformSettingsStore();
// A store that lives in memory only, for tests.
std::shared_ptr<SettingsStore> makeMemorySettingsStore();

// The store Registry uses when none is given: the platform store unless a
// test or front end installed another.
std::shared_ptr<SettingsStore> defaultSettingsStore();
void setDefaultSettingsStore(std::shared_ptr<SettingsStore> store);

}  // namespace tarnlift::app
