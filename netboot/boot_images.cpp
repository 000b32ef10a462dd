#include "netboot/boot_images.h"

#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <mutex>

#include "app/failure.h"
#include "app/log.h"

namespace tarnlift::netboot {
namespace {

class DirectoryStore : public BootImageStore {
 public:
  explicit DirectoryStore(std::string directory) : directory_(std::move(directory)) {}

  bool findRecord(int number, const uint8_t*& record, size_t& storedSize) override {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = files_.find(number);
    if (it == files_.end()) {
      std::string path = directory_ + "/" + std::to_string(number) + ".bin";
      std::unique_ptr<MappedFile> file = mapFileReadOnly(path);
      if (file == nullptr) return false;
      it = files_.emplace(number, std::move(file)).first;
    }
    record = it->second->data();
    storedSize = it->second->size();
    return true;
  }

 private:
  std::string directory_;
  std::mutex mutex_;
  std::map<int, std::unique_ptr<MappedFile>> files_;
};

struct StoreState {
  std::mutex mutex;
  std::string directory;
  std::unique_ptr<BootImageStore> directoryStore;
  BootImageStore* testStore = nullptr;
};

StoreState& state() {
  static StoreState s;
  return s;
}

class EmptyStore : public BootImageStore {
 public:
  bool findRecord(int, const uint8_t*&, size_t&) override { return false; }
};

}  // namespace

bool parseBootImageRecord(const uint8_t* record, size_t storedSize, BootImage& image) {
  if (record == nullptr || storedSize < 4) return false;
  uint32_t length =
      uint32_t(record[0]) | uint32_t(record[1]) << 8 | uint32_t(record[2]) << 16 | uint32_t(record[3]) << 24;
  if (length > storedSize - 4) return false;
  image.data = record + 4;
  image.length = length;
  return true;
}

std::vector<uint8_t> makeBootImageRecord(const uint8_t* content, size_t length) {
  std::vector<uint8_t> record(4 + length);
  uint32_t l = static_cast<uint32_t>(length);
  record[0] = uint8_t(l);
  record[1] = uint8_t(l >> 8);
  record[2] = uint8_t(l >> 16);
  record[3] = uint8_t(l >> 24);
  if (length != 0) std::memcpy(record.data() + 4, content, length);
  return record;
}

std::unique_ptr<BootImageStore> makeDirectoryBootImageStore(const std::string& directory) {
  return std::make_unique<DirectoryStore>(directory);
}

void setBootImageDirectory(const std::string& directory) {
  StoreState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.directory = directory;
  s.directoryStore = directory.empty() ? nullptr : makeDirectoryBootImageStore(directory);
}

std::string bootImageDirectory() {
  StoreState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.directory;
}

void setBootImageStore(BootImageStore* store) {
  StoreState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.testStore = store;
}

BootImageStore& currentBootImageStore() {
  StoreState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (s.testStore != nullptr) return *s.testStore;
  if (s.directoryStore != nullptr) return *s.directoryStore;
  if (BootImageStore* platform = platformBootImageStore()) return *platform;
  // No directory chosen: the first default directory that exists, kept.
  for (const std::string& directory : defaultBootImageDirectories()) {
    if (directoryExists(directory)) {
      s.directory = directory;
      s.directoryStore = makeDirectoryBootImageStore(directory);
      return *s.directoryStore;
    }
  }
  static EmptyStore empty;
  return empty;
}

BootImage loadBootImage(int number) {
  const uint8_t* record = nullptr;
  size_t storedSize = 0;
  if (!currentBootImageStore().findRecord(number, record, storedSize)) {
    std::printf("ResourceID=%d\n", number);
    std::fflush(stdout);
    fatalFailure("FindResource");
  }
  BootImage image;
  if (!parseBootImageRecord(record, storedSize, image)) fatalFailure("LoadResource");
  return image;
}

bool writeBootImage(const std::string& path, int number) {
  BootImage image = loadBootImage(number);
  long long written = writeNewFile(path, image.data, image.length);
  if (written < 0) {
    std::cerr << "Cannot create file" << std::endl;
    return false;
  }
  return written == static_cast<long long>(image.length);
}

}  // namespace tarnlift::netboot
