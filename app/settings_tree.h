// A settings store held as a tree in memory. The memory store is this tree
// alone; the Linux file store is this tree plus a file it is saved to after
// every change.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app/settings_store.h"

namespace tarnlift::app {

struct CaseInsensitiveLess {
  bool operator()(const std::string& a, const std::string& b) const;
};
bool equalsIgnoringCase(const std::string& a, const std::string& b);

struct SettingsNode {
  struct Value {
    std::string name;
    ValueType type = ValueType::None;
    std::vector<uint8_t> data;
  };
  // The name as first created; lookups ignore case.
  std::string name;
  std::vector<Value> values;  // in the order first written
  std::map<std::string, std::unique_ptr<SettingsNode>, CaseInsensitiveLess> subKeys;

  Value* findValue(const std::string& valueName);
};

class SettingsTreeStore : public SettingsStore, public std::enable_shared_from_this<SettingsTreeStore> {
 public:
  SettingsTreeStore();
  std::unique_ptr<SettingsKey> openRoot(const std::string& path, uint32_t& error) override;

  // Everything below is used by the keys of this store, under mutex().
  std::recursive_mutex& mutex() { return mutex_; }
  SettingsNode& root() { return *root_; }
  // Finds the node of a path of names; null when it no longer exists.
  SettingsNode* find(const std::vector<std::string>& names);
  // Called after every change; a store that keeps a file saves it here and
  // returns the system error code of a failed save.
  virtual uint32_t persist() { return 0; }

 protected:
  std::recursive_mutex mutex_;
  std::unique_ptr<SettingsNode> root_;
};

std::vector<std::string> splitKeyPath(const std::string& path);

}  // namespace tarnlift::app
