// Windows half of the boot image store: the executable's RCDATA records
// (searched first) and its placeholders for 143 and 125 (searched last), which stay
// mapped for the life of the process; file mappings for the folders searched
// between them, and where those folders are.
#include <windows.h>

#include <functional>
#include <string>

#include "netboot/boot_images.h"
#include "netboot/resource_lookup.h"

namespace tarnlift::netboot {
namespace {

// The three steps on the program's own RCDATA resources; find names the
// resource.
ResourceLookup resourceSteps(std::function<void*(HMODULE, int)> find) {
  HMODULE module = GetModuleHandleA(nullptr);
  ResourceLookup steps;
  steps.find = [module, find](int n) -> void* { return find(module, n); };
  steps.load = [module](void* found) -> void* { return LoadResource(module, static_cast<HRSRC>(found)); };
  steps.lock = [](void* loaded) -> const void* { return LockResource(static_cast<HGLOBAL>(loaded)); };
  steps.size = [module](void* found) -> size_t { return SizeofResource(module, static_cast<HRSRC>(found)); };
  return steps;
}

class ResourceStore : public BootImageStore {
 public:
  bool findRecord(int number, const uint8_t*& record, size_t& storedSize) override {
    static const ResourceLookup lookup = resourceSteps([](HMODULE module, int n) -> void* {
      return FindResourceA(module, MAKEINTRESOURCEA(n), MAKEINTRESOURCEA(10));
    });
    return lookUpResourceRecord(lookup, number, record, storedSize);
  }
};

// The placeholder images (143 for UEFI PCs, 125 for BIOS PCs), kept under
// names of their own (TARNLIFT_PLACEHOLDER_<number>) so that they are found
// only after every folder: a deployer's real image, put in a folder, wins.
class PlaceholderStore : public BootImageStore {
 public:
  bool findRecord(int number, const uint8_t*& record, size_t& storedSize) override {
    if (number != kImageEfiX64 && number != kImageBiosPxe) return false;
    static const ResourceLookup lookup = resourceSteps([](HMODULE module, int n) -> void* {
      std::string name = "TARNLIFT_PLACEHOLDER_" + std::to_string(n);
      return FindResourceA(module, name.c_str(), MAKEINTRESOURCEA(10));
    });
    return lookUpResourceRecord(lookup, number, record, storedSize);
  }
};

std::string executablePath() {
  char buffer[MAX_PATH];
  DWORD length = GetModuleFileNameA(nullptr, buffer, sizeof buffer);
  if (length == 0 || length >= sizeof buffer) return {};
  return std::string(buffer, length);
}

class Win32MappedFile : public MappedFile {
 public:
  Win32MappedFile(HANDLE mapping, const void* view, size_t size) : mapping_(mapping), view_(view), size_(size) {}
  ~Win32MappedFile() override {
    if (view_ != nullptr) UnmapViewOfFile(view_);
    if (mapping_ != nullptr) CloseHandle(mapping_);
  }
  const uint8_t* data() const override {
    static const uint8_t kEmpty[1] = {0};
    return view_ != nullptr ? static_cast<const uint8_t*>(view_) : kEmpty;
  }
  size_t size() const override { return size_; }

 private:
  HANDLE mapping_;
  const void* view_;
  size_t size_;
};

}  // namespace

std::unique_ptr<MappedFile> mapFileReadOnly(const std::string& path) {
  HANDLE file =
      CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return nullptr;
  LARGE_INTEGER size{};
  if (!GetFileSizeEx(file, &size)) {
    CloseHandle(file);
    return nullptr;
  }
  if (size.QuadPart == 0) {
    CloseHandle(file);
    return std::make_unique<Win32MappedFile>(nullptr, nullptr, 0);
  }
  HANDLE mapping = CreateFileMappingA(file, nullptr, PAGE_READONLY, 0, 0, nullptr);
  CloseHandle(file);
  if (mapping == nullptr) return nullptr;
  const void* view = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0);
  if (view == nullptr) {
    CloseHandle(mapping);
    return nullptr;
  }
  return std::make_unique<Win32MappedFile>(mapping, view, static_cast<size_t>(size.QuadPart));
}

BootImageStore* platformBootImageStore() {
  static ResourceStore store;
  return &store;
}

std::string platformBootImagePlace() { return "resources of " + executablePath(); }

BootImageStore* placeholderBootImageStore() {
  static PlaceholderStore store;
  return &store;
}

bool directoryExists(const std::string& path) {
  DWORD attributes = GetFileAttributesA(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

std::string userBootImageDirectory() {
  char buffer[MAX_PATH];
  DWORD length = GetEnvironmentVariableA("LOCALAPPDATA", buffer, sizeof buffer);
  if (length == 0 || length >= sizeof buffer) return {};
  return std::string(buffer, length) + "\\Tarnlift\\bootimages";
}

std::string systemBootImageDirectory() {
  std::string path = executablePath();
  size_t slash = path.find_last_of("\\/");
  if (slash == std::string::npos) return {};
  return path.substr(0, slash) + "\\bootimages";
}

}  // namespace tarnlift::netboot
