#include <windows.h>

#include "app/settings_store.h"

namespace tarnlift::app {

namespace {

class RegistryKey : public SettingsKey {
 public:
  explicit RegistryKey(HKEY handle) : handle_(handle) {}
  ~RegistryKey() override {
    if (handle_ != nullptr) RegCloseKey(handle_);
  }

  static std::unique_ptr<SettingsKey> create(HKEY parent, const std::string& name, uint32_t& error) {
    HKEY handle = nullptr;
    char keyClass[] = "REG_SZ";
    LONG result = RegCreateKeyExA(parent, name.c_str(), 0, keyClass, 0, KEY_ALL_ACCESS, nullptr, &handle, nullptr);
    error = static_cast<uint32_t>(result);
    if (result != ERROR_SUCCESS) return nullptr;
    return std::make_unique<RegistryKey>(handle);
  }

  std::unique_ptr<SettingsKey> createSubKey(const std::string& name, uint32_t& error) override {
    return create(handle_, name, error);
  }

  bool query(const std::string& name, ValueType& type, std::vector<uint8_t>& data) override {
    DWORD storedType = 0;
    DWORD size = 0;
    if (RegQueryValueExA(handle_, name.c_str(), nullptr, &storedType, nullptr, &size) != ERROR_SUCCESS) return false;
    data.assign(size, 0);
    if (RegQueryValueExA(handle_, name.c_str(), nullptr, &storedType, data.data(), &size) != ERROR_SUCCESS)
      return false;
    data.resize(size);
    type = static_cast<ValueType>(storedType);
    return true;
  }

  uint32_t set(const std::string& name, ValueType type, const uint8_t* data, size_t size) override {
    return static_cast<uint32_t>(
        RegSetValueExA(handle_, name.c_str(), 0, static_cast<DWORD>(type), data, static_cast<DWORD>(size)));
  }

  uint32_t deleteSubKey(const std::string& name) override {
    return static_cast<uint32_t>(RegDeleteKeyA(handle_, name.c_str()));
  }

  uint32_t deleteValue(const std::string& name) override {
    return static_cast<uint32_t>(RegDeleteValueA(handle_, name.c_str()));
  }

  uint32_t enumSubKey(uint32_t index, std::string& name) override {
    char buffer[4096] = {};
    LONG result = RegEnumKeyA(handle_, index, buffer, sizeof buffer);
    if (result == ERROR_NO_MORE_ITEMS) return kEndOfList;
    if (result != ERROR_SUCCESS) return static_cast<uint32_t>(result);
    name = buffer;
    return 0;
  }

  bool enumValue(uint32_t index, ValueType& type, std::string& name) override {
    char buffer[4096] = {};
    DWORD length = sizeof buffer;
    DWORD storedType = 0;
    if (RegEnumValueA(handle_, index, buffer, &length, nullptr, &storedType, nullptr, nullptr) != ERROR_SUCCESS) {
      return false;
    }
    name.assign(buffer, length);
    type = static_cast<ValueType>(storedType);
    return true;
  }

  uint32_t close() override {
    LONG result = RegCloseKey(handle_);
    handle_ = nullptr;
    return static_cast<uint32_t>(result);
  }

 private:
  HKEY handle_;
};

class RegistryStore : public SettingsStore {
 public:
  std::unique_ptr<SettingsKey> openRoot(const std::string& path, uint32_t& error) override {
    return RegistryKey::create(HKEY_CURRENT_USER, path, error);
  }
};

}  // namespace

std::shared_ptr<SettingsStore> platformSettingsStore() { return std::make_shared<RegistryStore>(); }

}  // namespace tarnlift::app
