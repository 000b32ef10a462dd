// The running system's volumes and disks: drive roots and types, the
// system's folders and page files, every volume with its mount paths and
// disk extents, and "\\.\X:" / "\\.\PHYSICALDRIVEn" handles through the
// device wrappers, which log a fixed line and return a failure value.
#include <windows.h>
#include <winioctl.h>

#include <cstdio>
#include <cstring>

#include "app/failure.h"
#include "app/log.h"
#include "localdisk/windows_drives.h"

namespace tarnlift::localdisk {
namespace {

int readDevice(HANDLE handle, uint8_t* buffer, uint32_t size) {
  DWORD count = 0;
  if (!ReadFile(handle, buffer, size, &count, nullptr)) {
    app::logLine() << "Read from device failed";
    return -1;
  }
  return static_cast<int>(count);
}

int writeDevice(HANDLE handle, const uint8_t* buffer, uint32_t size) {
  DWORD count = 0;
  if (!WriteFile(handle, buffer, size, &count, nullptr)) {
    app::logLine() << "Write from device failed";
    return -1;
  }
  return static_cast<int>(count);
}

bool seekDevice(HANDLE handle, uint64_t offset) {
  LONG high = static_cast<LONG>(offset >> 32);
  DWORD low = SetFilePointer(handle, static_cast<LONG>(offset & 0xFFFFFFFFu), &high, FILE_BEGIN);
  if (low == INVALID_SET_FILE_POINTER && GetLastError() != NO_ERROR) {
    app::logLine() << "Seeking device failed";
    return false;
  }
  return true;
}

int controlDevice(HANDLE handle, DWORD code, void* out, DWORD outSize) {
  DWORD returned = 0;
  if (!DeviceIoControl(handle, code, nullptr, 0, out, outSize, &returned, nullptr)) {
    app::logLine() << "I/O Operation failed";
    return -1;
  }
  return static_cast<int>(returned);
}

bool closeDevice(HANDLE handle) {
  if (!CloseHandle(handle)) {
    app::logLine() << "Closing handle failed";
    return false;
  }
  return true;
}

class Win32Device : public WindowsDevice {
 public:
  explicit Win32Device(HANDLE handle) : handle_(handle) {}
  ~Win32Device() override {
    if (handle_ != INVALID_HANDLE_VALUE) closeDevice(handle_);
  }
  int read(uint8_t* buffer, uint32_t size) override { return readDevice(handle_, buffer, size); }
  int write(const uint8_t* buffer, uint32_t size) override { return writeDevice(handle_, buffer, size); }
  bool seek(uint64_t offset) override { return seekDevice(handle_, offset); }
  int deviceNumber(StorageDeviceNumber& number) override {
    STORAGE_DEVICE_NUMBER answer{};
    int returned = controlDevice(handle_, IOCTL_STORAGE_GET_DEVICE_NUMBER, &answer, sizeof answer);
    number.deviceType = answer.DeviceType;
    number.deviceNumber = answer.DeviceNumber;
    number.partitionNumber = answer.PartitionNumber;
    return returned;
  }
  bool close() override {
    HANDLE handle = handle_;
    handle_ = INVALID_HANDLE_VALUE;
    // A volume's close flushes what the system holds for it.
    FlushFileBuffers(handle);
    return closeDevice(handle);
  }
  bool lockVolume() override { return controlDevice(handle_, FSCTL_LOCK_VOLUME, nullptr, 0) >= 0; }
  bool dismountVolume() override { return controlDevice(handle_, FSCTL_DISMOUNT_VOLUME, nullptr, 0) >= 0; }
  bool unlockVolume() override { return controlDevice(handle_, FSCTL_UNLOCK_VOLUME, nullptr, 0) >= 0; }
  std::unique_ptr<Device> duplicate() override {
    HANDLE copy = nullptr;
    HANDLE self = GetCurrentProcess();
    if (!DuplicateHandle(self, handle_, self, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS)) return nullptr;
    return std::make_unique<Win32Device>(copy);
  }

 private:
  HANDLE handle_;
};

std::unique_ptr<WindowsDevice> openDevice(const std::string& path, bool write) {
  HANDLE handle = CreateFileA(path.c_str(), write ? GENERIC_READ | GENERIC_WRITE : 0,
                              FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return nullptr;
  return std::make_unique<Win32Device>(handle);
}

// The strings of a REG_MULTI_SZ or of GetLogicalDriveStrings.
std::vector<std::string> splitMulti(const char* text, size_t size) {
  std::vector<std::string> result;
  for (size_t at = 0; at < size && text[at] != 0;) {
    std::string item(text + at);
    at += item.size() + 1;
    result.push_back(item);
  }
  return result;
}

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\0')) text.pop_back();
  size_t first = text.find_first_not_of(' ');
  return first == std::string::npos ? std::string() : text.substr(first);
}

class RealWindowsStorage : public WindowsStorage {
 public:
  std::vector<std::string> driveRoots() override {
    char roots[512] = {};
    if (GetLogicalDriveStringsA(sizeof roots, roots) == 0) app::fatalFailure("GetLogicalDriveStrings");
    return splitMulti(roots, sizeof roots);
  }
  uint32_t driveType(const std::string& root) override { return GetDriveTypeA(root.c_str()); }
  std::string systemDirectory() override {
    char system[512] = {};
    if (GetSystemDirectoryA(system, sizeof system) == 0) app::fatalFailure("GetSystemDirectory");
    return system;
  }
  std::string windowsDirectory() override {
    char windows[MAX_PATH + 1] = {};
    if (GetWindowsDirectoryA(windows, MAX_PATH) == 0) return {};
    return windows;
  }
  std::vector<std::string> pageFiles() override {
    // "\??\C:\pagefile.sys" (in use) or "C:\pagefile.sys 0 0" (configured).
    std::vector<std::string> result;
    for (const char* value : {"ExistingPageFiles", "PagingFiles"}) {
      char data[4096] = {};
      DWORD size = sizeof data - 2;
      if (RegGetValueA(HKEY_LOCAL_MACHINE, "SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Memory Management",
                       value, RRF_RT_REG_MULTI_SZ, nullptr, data, &size) != ERROR_SUCCESS) {
        continue;
      }
      for (std::string entry : splitMulti(data, size)) {
        if (entry.rfind("\\??\\", 0) == 0) entry.erase(0, 4);
        entry = entry.substr(0, entry.find(' '));
        // "?:" is the system drive's, which counts already.
        if (entry.size() > 2 && entry[1] == ':' && entry[0] != '?') result.push_back(entry);
      }
    }
    return result;
  }
  std::string volumeOf(const std::string& path) override {
    char mount[MAX_PATH + 1] = {};
    char name[MAX_PATH + 1] = {};
    if (!GetVolumePathNameA(path.c_str(), mount, MAX_PATH)) return {};
    if (!GetVolumeNameForVolumeMountPointA(mount, name, MAX_PATH)) return {};
    return name;
  }
  std::vector<WindowsVolume> volumes() override {
    std::vector<WindowsVolume> result;
    char name[MAX_PATH + 1] = {};
    HANDLE find = FindFirstVolumeA(name, MAX_PATH);
    if (find == INVALID_HANDLE_VALUE) return result;
    do {
      WindowsVolume volume;
      volume.name = name;
      char paths[4096] = {};
      DWORD length = 0;
      if (GetVolumePathNamesForVolumeNameA(name, paths, sizeof paths - 1, &length)) {
        volume.paths = splitMulti(paths, length);
      }
      volume.disks = disksOf(volume.name);
      result.push_back(volume);
    } while (FindNextVolumeA(find, name, MAX_PATH));
    FindVolumeClose(find);
    return result;
  }
  std::unique_ptr<WindowsDevice> openVolume(char letter, bool write) override {
    return openDevice(std::string("\\\\.\\") + letter + ":", write);
  }
  std::unique_ptr<WindowsDevice> openPhysicalDrive(uint32_t number, bool write) override {
    char path[64];
    std::snprintf(path, sizeof path, "\\\\.\\PHYSICALDRIVE%u", number);
    return openDevice(path, write);
  }
  bool describeDisk(uint32_t number, DiskDescription& description) override {
    char path[64];
    std::snprintf(path, sizeof path, "\\\\.\\PHYSICALDRIVE%u", number);
    // Queries only: no rights to read the disk are needed.
    HANDLE disk = CreateFileA(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (disk == INVALID_HANDLE_VALUE) return false;
    DWORD returned = 0;
    DISK_GEOMETRY_EX geometry{};
    if (DeviceIoControl(disk, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, nullptr, 0, &geometry, sizeof geometry, &returned,
                        nullptr)) {
      description.bytes = static_cast<uint64_t>(geometry.DiskSize.QuadPart);
    }
    STORAGE_PROPERTY_QUERY query{};
    query.PropertyId = StorageDeviceProperty;
    query.QueryType = PropertyStandardQuery;
    char buffer[1024] = {};
    if (DeviceIoControl(disk, IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof query, buffer, sizeof buffer - 1, &returned,
                        nullptr) &&
        returned >= sizeof(STORAGE_DEVICE_DESCRIPTOR)) {
      auto* descriptor = reinterpret_cast<STORAGE_DEVICE_DESCRIPTOR*>(buffer);
      auto field = [&](DWORD offset) {
        return offset != 0 && offset < returned ? trimmed(buffer + offset) : std::string();
      };
      std::string vendor = field(descriptor->VendorIdOffset);
      std::string product = field(descriptor->ProductIdOffset);
      description.model = vendor.empty() ? product : product.empty() ? vendor : vendor + " " + product;
    }
    CloseHandle(disk);
    return description.bytes != 0 || !description.model.empty();
  }

 private:
  static std::vector<uint32_t> disksOf(std::string name) {
    std::vector<uint32_t> disks;
    if (!name.empty() && name.back() == '\\') name.pop_back();
    HANDLE volume = CreateFileA(name.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (volume == INVALID_HANDLE_VALUE) return disks;
    // Room for 32 extents: more than any volume of a removable disk has.
    std::vector<uint8_t> buffer(sizeof(VOLUME_DISK_EXTENTS) + 32 * sizeof(DISK_EXTENT));
    DWORD returned = 0;
    if (DeviceIoControl(volume, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, buffer.data(),
                        static_cast<DWORD>(buffer.size()), &returned, nullptr)) {
      auto* extents = reinterpret_cast<VOLUME_DISK_EXTENTS*>(buffer.data());
      for (DWORD i = 0; i < extents->NumberOfDiskExtents && i < 33; ++i) {
        uint32_t disk = extents->Extents[i].DiskNumber;
        bool known = false;
        for (uint32_t seen : disks) known = known || seen == disk;
        if (!known) disks.push_back(disk);
      }
    }
    CloseHandle(volume);
    return disks;
  }
};

}  // namespace

WindowsStorage& realWindowsStorage() {
  static RealWindowsStorage storage;
  return storage;
}

}  // namespace tarnlift::localdisk
