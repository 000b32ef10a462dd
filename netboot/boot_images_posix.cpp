// Linux half of the boot image store: records are files, mapped read-only
// so that transfers send straight from the page cache; the placeholders are
// compiled in and searched last.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "netboot/boot_images.h"
#include "netboot/placeholder_records.h"

namespace tarnlift::netboot {
namespace {

class PosixMappedFile : public MappedFile {
 public:
  PosixMappedFile(void* address, size_t size) : address_(address), size_(size) {}
  ~PosixMappedFile() override {
    if (address_ != nullptr) munmap(address_, size_);
  }
  const uint8_t* data() const override {
    static const uint8_t kEmpty[1] = {0};
    return address_ != nullptr ? static_cast<const uint8_t*>(address_) : kEmpty;
  }
  size_t size() const override { return size_; }

 private:
  void* address_;
  size_t size_;
};

// The placeholders compiled into the program.
class EmbeddedPlaceholderStore : public BootImageStore {
 public:
  bool findRecord(int number, const uint8_t*& record, size_t& storedSize) override {
    for (const EmbeddedRecord& embedded : builtInPlaceholderRecords()) {
      if (embedded.number != number) continue;
      record = embedded.record;
      storedSize = embedded.storedSize;
      return true;
    }
    return false;
  }
};

std::string executableDirectory() {
  char path[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) return {};
  std::string text(path, static_cast<size_t>(length));
  size_t slash = text.rfind('/');
  return slash == std::string::npos ? std::string() : text.substr(0, slash);
}

}  // namespace

std::unique_ptr<MappedFile> mapFileReadOnly(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat info {};
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    return nullptr;
  }
  size_t size = static_cast<size_t>(info.st_size);
  void* address = nullptr;
  if (size != 0) {
    address = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    if (address == MAP_FAILED) {
      ::close(fd);
      return nullptr;
    }
  }
  ::close(fd);
  return std::make_unique<PosixMappedFile>(address, size);
}

BootImageStore* platformBootImageStore() { return nullptr; }
std::string platformBootImagePlace() { return {}; }
BootImageStore* placeholderBootImageStore() {
  if (builtInPlaceholderRecords().empty()) return nullptr;
  static EmbeddedPlaceholderStore store;
  return &store;
}

bool directoryExists(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The data home of the XDG base directory rules.
std::string userBootImageDirectory() {
  const char* dataHome = std::getenv("XDG_DATA_HOME");
  if (dataHome != nullptr && dataHome[0] == '/') return std::string(dataHome) + "/tarnlift/bootimages";
  const char* home = std::getenv("HOME");
  if (home == nullptr || home[0] == 0) return {};
  return std::string(home) + "/.local/share/tarnlift/bootimages";
}

// The data directory of the installation the program belongs to:
// /usr/bin/tarnlift reads /usr/share/tarnlift/bootimages, and a build tree's
// bin/tarnlift reads the records the build assembles in share/ beside bin/.
std::string systemBootImageDirectory() {
  std::string beside = executableDirectory();
  if (beside.empty()) return {};
  size_t slash = beside.rfind('/');
  std::string prefix = slash == std::string::npos ? std::string() : beside.substr(0, slash);
  return prefix + "/share/tarnlift/bootimages";
}

}  // namespace tarnlift::netboot
