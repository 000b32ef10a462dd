// Owning wrapper around one open settings key. Reads never fail (a missing
// or unreadable value gives the caller's default); creating, writing,
// enumerating sub-keys and closing are fatal on failure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "app/settings_store.h"

namespace tarnlift::app {

// The key all of the program's settings live under.
inline constexpr const char* kSettingsKeyPath = "SOFTWARE\\Quenlark\\NetServer";
inline constexpr uint32_t kFullAccess = 0xF003F;

class Registry {
 public:
  static constexpr size_t kScratchSize = 4096;

  Registry() = default;
  ~Registry();
  Registry(const Registry&) = delete;
  Registry& operator=(const Registry&) = delete;

  // Opens (creating if missing) path under the current user's root of store,
  // or of the default store when none is given.
  void openRoot(const std::string& path, uint32_t access = kFullAccess, std::shared_ptr<SettingsStore> store = nullptr);
  // Opens (creating if missing) a sub-key of parent; access 0 takes the parent's.
  void openSubKey(Registry& parent, const std::string& name, uint32_t access = 0);
  void close();
  bool isOpen() const { return key_ != nullptr; }
  const std::string& path() const { return path_; }

  uint32_t readInt(const std::string& name, uint32_t defaultValue);
  bool readBool(const std::string& name, bool defaultValue) { return readInt(name, defaultValue ? 1 : 0) != 0; }
  std::string readString(const std::string& name, const std::string& defaultValue);
  // Replaces list with the stored strings; leaves it as given when absent.
  void readMultiString(const std::string& name, std::list<std::string>& list);
  // Copies at most size bytes; returns the number read, 0 when absent or larger.
  size_t readBinary(const std::string& name, void* buffer, size_t size);
  size_t valueSize(const std::string& name);
  ValueType valueType(const std::string& name);

  void writeInt(const std::string& name, uint32_t value);
  void writeBool(const std::string& name, bool value) { writeInt(name, value ? 1 : 0); }
  void writeString(const std::string& name, const std::string& text);
  void writeMultiString(const std::string& name, const std::list<std::string>& list);
  void writeBinary(const std::string& name, const void* data, size_t size);

  uint32_t deleteSubKey(const std::string& name);
  // Removes one value; returns the system result (not found is not fatal).
  uint32_t deleteValue(const std::string& name);
  bool enumSubKey(uint32_t index, std::string& name);
  bool enumValue(uint32_t index, ValueType& type, std::string& name);

 private:
  std::shared_ptr<SettingsStore> store_;
  uint32_t access_ = 0;
  std::unique_ptr<SettingsKey> key_;
  std::string path_;
};

}  // namespace tarnlift::app
