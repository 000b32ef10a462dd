#include "app/settings_tree.h"

#include <algorithm>
#include <cctype>

namespace tarnlift::app {

namespace {

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

class TreeKey : public SettingsKey {
 public:
  TreeKey(std::shared_ptr<SettingsTreeStore> store, std::vector<std::string> names)
      : store_(std::move(store)), names_(std::move(names)) {}

  std::unique_ptr<SettingsKey> createSubKey(const std::string& name, uint32_t& error) override {
    std::lock_guard<std::recursive_mutex> lock(store_->mutex());
    SettingsNode* node = store_->find(names_);
    if (node == nullptr) {
      error = kKeyDeleted;
      return nullptr;
    }
    std::vector<std::string> childNames = names_;
    bool created = false;
    for (const std::string& part : splitKeyPath(name)) {
      auto& child = node->subKeys[part];
      if (child == nullptr) {
        child = std::make_unique<SettingsNode>();
        child->name = part;
        created = true;
      }
      node = child.get();
      childNames.push_back(part);
    }
    if (created) {
      error = store_->persist();
      if (error != 0) return nullptr;
    }
    error = 0;
    return std::make_unique<TreeKey>(store_, std::move(childNames));
  }

  bool query(const std::string& name, ValueType& type, std::vector<uint8_t>& data) override {
    std::lock_guard<std::recursive_mutex> lock(store_->mutex());
    SettingsNode* node = store_->find(names_);
    SettingsNode::Value* value = node != nullptr ? node->findValue(name) : nullptr;
    if (value == nullptr) return false;
    type = value->type;
    data = value->data;
    return true;
  }

  uint32_t set(const std::string& name, ValueType type, const uint8_t* data, size_t size) override {
    std::lock_guard<std::recursive_mutex> lock(store_->mutex());
    SettingsNode* node = store_->find(names_);
    if (node == nullptr) return kKeyDeleted;
    SettingsNode::Value* value = node->findValue(name);
    if (value == nullptr) {
      node->values.push_back({name, type, {}});
      value = &node->values.back();
    }
    value->type = type;
    value->data.assign(data, data + size);
    return store_->persist();
  }

  uint32_t deleteSubKey(const std::string& name) override {
    std::lock_guard<std::recursive_mutex> lock(store_->mutex());
    SettingsNode* node = store_->find(names_);
    if (node == nullptr) return kKeyDeleted;
    auto found = node->subKeys.find(name);
    if (found == node->subKeys.end()) return kNotFound;
    // As in the registry, only a key without sub-keys of its own can go.
    if (!found->second->subKeys.empty()) return kAccessDenied;
    node->subKeys.erase(found);
    return store_->persist();
  }

  uint32_t deleteValue(const std::string& name) override {
    std::lock_guard<std::recursive_mutex> lock(store_->mutex());
    SettingsNode* node = store_->find(names_);
    if (node == nullptr) return kKeyDeleted;
    for (auto it = node->values.begin(); it != node->values.end(); ++it) {
      if (equalsIgnoringCase(it->name, name)) {
        node->values.erase(it);
        return store_->persist();
      }
    }
    return kNotFound;
  }

  uint32_t enumSubKey(uint32_t index, std::string& name) override {
    std::lock_guard<std::recursive_mutex> lock(store_->mutex());
    SettingsNode* node = store_->find(names_);
    if (node == nullptr) return kKeyDeleted;
    if (index >= node->subKeys.size()) return kEndOfList;
    auto it = node->subKeys.begin();
    std::advance(it, index);
    name = it->second->name;
    return 0;
  }

  bool enumValue(uint32_t index, ValueType& type, std::string& name) override {
    std::lock_guard<std::recursive_mutex> lock(store_->mutex());
    SettingsNode* node = store_->find(names_);
    if (node == nullptr || index >= node->values.size()) return false;
    type = node->values[index].type;
    name = node->values[index].name;
    return true;
  }

  uint32_t close() override { return 0; }

 private:
  static constexpr uint32_t kNotFound = 2;
  static constexpr uint32_t kAccessDenied = 5;
  static constexpr uint32_t kKeyDeleted = 1018;

  std::shared_ptr<SettingsTreeStore> store_;
  std::vector<std::string> names_;
};

}  // namespace

bool CaseInsensitiveLess::operator()(const std::string& a, const std::string& b) const {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                      [](char x, char y) { return lower(x) < lower(y); });
}

bool equalsIgnoringCase(const std::string& a, const std::string& b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lower(x) == lower(y); });
}

SettingsNode::Value* SettingsNode::findValue(const std::string& valueName) {
  for (Value& value : values) {
    if (equalsIgnoringCase(value.name, valueName)) return &value;
  }
  return nullptr;
}

std::vector<std::string> splitKeyPath(const std::string& path) {
  std::vector<std::string> names;
  std::string current;
  for (char c : path) {
    if (c == '\\') {
      if (!current.empty()) names.push_back(current);
      current.clear();
    } else {
      current += c;
    }
  }
  if (!current.empty()) names.push_back(current);
  return names;
}

SettingsTreeStore::SettingsTreeStore() : root_(std::make_unique<SettingsNode>()) {}

SettingsNode* SettingsTreeStore::find(const std::vector<std::string>& names) {
  SettingsNode* node = root_.get();
  for (const std::string& name : names) {
    auto found = node->subKeys.find(name);
    if (found == node->subKeys.end()) return nullptr;
    node = found->second.get();
  }
  return node;
}

std::unique_ptr<SettingsKey> SettingsTreeStore::openRoot(const std::string& path, uint32_t& error) {
  TreeKey root(shared_from_this(), {});
  return root.createSubKey(path, error);
}

std::shared_ptr<SettingsStore> makeMemorySettingsStore() { return std::make_shared<SettingsTreeStore>(); }

namespace {
std::mutex gDefaultStoreMutex;
std::shared_ptr<SettingsStore> gDefaultStore;
}  // namespace

std::shared_ptr<SettingsStore> defaultSettingsStore() {
  std::lock_guard<std::mutex> lock(gDefaultStoreMutex);
  if (gDefaultStore == nullptr) gDefaultStore = platformSettingsStore();
  return gDefaultStore;
}

void setDefaultSettingsStore(std::shared_ptr<SettingsStore> store) {
  std::lock_guard<std::mutex> lock(gDefaultStoreMutex);
  gDefaultStore = std::move(store);
}

}  // namespace tarnlift::app
