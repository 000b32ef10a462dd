#include "netboot/boot_images.h"

#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <mutex>

#include "app/failure.h"
#include "app/log.h"
#include "app/new_file.h"

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

// Every directory store ever used stays alive: the views lookups hand out
// point into their mappings for the life of the process.
struct StoreState {
  std::mutex mutex;
  std::string directory;
  std::map<std::string, std::unique_ptr<BootImageStore>> directoryStores;
  BootImageStore* testStore = nullptr;
};

StoreState& state() {
  static StoreState s;
  return s;
}

// Caller holds the state's lock.
BootImageStore* directoryStore(StoreState& s, const std::string& directory) {
  std::unique_ptr<BootImageStore>& store = s.directoryStores[directory];
  if (store == nullptr) store = makeDirectoryBootImageStore(directory);
  return store.get();
}

// Caller holds the state's lock. The folders are worked out on every call,
// so that a folder created while the program runs is searched from then on.
std::vector<BootImageSource> sourcesLocked(StoreState& s) {
  std::vector<BootImageSource> sources;
  if (s.testStore != nullptr) {
    sources.push_back({"test store", false, s.testStore});
    return sources;
  }
  if (BootImageStore* platform = platformBootImageStore()) {
    sources.push_back({platformBootImagePlace(), false, platform});
  }
  std::vector<std::string> directories;
  if (!s.directory.empty()) {
    directories.push_back(s.directory);
  } else {
    std::string user = userBootImageDirectory();
    if (!user.empty()) directories.push_back(user);
    std::string system = systemBootImageDirectory();
    if (!system.empty()) directories.push_back(system);
  }
  for (const std::string& directory : directories) {
    sources.push_back({directory, true, directoryStore(s, directory)});
  }
  if (BootImageStore* placeholder = placeholderBootImageStore()) {
    sources.push_back({"placeholder built into the program", false, placeholder});
  }
  return sources;
}

// Asks each place in turn; the first that has the record gives it.
class ChainStore : public BootImageStore {
 public:
  bool findRecord(int number, const uint8_t*& record, size_t& storedSize) override {
    BootImageLocation location;
    if (!locateBootImage(number, location)) return false;
    record = location.record;
    storedSize = location.storedSize;
    return true;
  }
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
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.testStore != nullptr) return *s.testStore;
  }
  static ChainStore chain;
  return chain;
}

std::vector<BootImageSource> bootImageSources() {
  StoreState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return sourcesLocked(s);
}

std::string bootImageSearchText() {
  std::string text;
  for (const BootImageSource& source : bootImageSources()) {
    if (!text.empty()) text += ", then ";
    text += source.place;
  }
  return text.empty() ? std::string("(none)") : text;
}

bool locateBootImage(int number, BootImageLocation& location) {
  for (const BootImageSource& source : bootImageSources()) {
    const uint8_t* record = nullptr;
    size_t storedSize = 0;
    if (source.store->findRecord(number, record, storedSize)) {
      location.place = source.place;
      location.record = record;
      location.storedSize = storedSize;
      return true;
    }
  }
  return false;
}

const std::vector<BootImageUse>& bootImageUses() {
  static const std::vector<BootImageUse> uses{
      {125, "BIOS PXE client, file name with \"image\""},
      {126, "BIOS PXE client, file name with \"pxelinux.cfg\""},
      {127, "vendor class \"Etherboot\""},
      {128, "vendor class \"Quenlboot\""},
      {129, "vendor class \"Powerboot\""},
      {130, "vendor classes \"e500_boot\", \"e500sboot\""},
      {131, "vendor class \"Mips_boot\""},
      {135, "vendor class \"440__boot\""},
      {136, "vendor class \"tile_boot\""},
      {137, "vendor class \"ARM__boot\""},
      {138, "vendor class \"MMipsBoot\""},
      {139, "vendor class \"ARM64__boot\""},
      {142, "BIOS PXE client, file name with \"ldlinux\""},
      {143, "PXE client, EFI x86-64"},
      {120, "local disk: file \"linux\""},
      {132, "local disk: file \"initrd.rgz\""},
      {124, "local disk: file \"syslinux.cfg\""},
      {134, "local disk: the \"syslinux.exe\" installer"},
  };
  return uses;
}

BootImage loadBootImage(int number) {
  const uint8_t* record = nullptr;
  size_t storedSize = 0;
  if (!currentBootImageStore().findRecord(number, record, storedSize)) {
    std::printf("ResourceID=%d\n", number);
    std::fflush(stdout);
    app::fatalFailure("FindResource");
  }
  BootImage image;
  if (!parseBootImageRecord(record, storedSize, image)) app::fatalFailure("LoadResource");
  return image;
}

bool writeBootImage(const std::string& path, int number) {
  BootImage image = loadBootImage(number);
  app::NewFileResult written = app::writeNewFile(path, image.data, image.length, app::NewFileUse::Data);
  if (!written.created) {
    std::cerr << "Cannot create file" << std::endl;
    return false;
  }
  return written.written == image.length;
}

}  // namespace tarnlift::netboot
