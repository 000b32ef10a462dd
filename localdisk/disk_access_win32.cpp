// Windows device access: the volume "\\.\X:", its storage device number,
// the physical drive "\\.\PHYSICALDRIVEn", and files in "X:\".
#include <windows.h>
#include <winioctl.h>

#include <cctype>
#include <cstdio>

#include "app/log.h"
#include "localdisk/disk_access.h"

namespace tarnlift::localdisk {
namespace {

// The device wrappers: each logs a fixed line and returns a failure value.
int readDevice(HANDLE handle, uint8_t* buffer, uint32_t size) {
  DWORD count = 0;
  if (!ReadFile(handle, buffer, size, &count, nullptr)) {
    logLine() << "Read from device failed";
    return -1;
  }
  return static_cast<int>(count);
}

int writeDevice(HANDLE handle, const uint8_t* buffer, uint32_t size) {
  DWORD count = 0;
  if (!WriteFile(handle, buffer, size, &count, nullptr)) {
    logLine() << "Write from device failed";
    return -1;
  }
  return static_cast<int>(count);
}

bool seekDevice(HANDLE handle, uint64_t offset) {
  LONG high = static_cast<LONG>(offset >> 32);
  DWORD low = SetFilePointer(handle, static_cast<LONG>(offset & 0xFFFFFFFFu), &high, FILE_BEGIN);
  if (low == INVALID_SET_FILE_POINTER && GetLastError() != NO_ERROR) {
    logLine() << "Seeking device failed";
    return false;
  }
  return true;
}

int controlDevice(HANDLE handle, DWORD code, void* out, DWORD outSize) {
  DWORD returned = 0;
  if (!DeviceIoControl(handle, code, nullptr, 0, out, outSize, &returned, nullptr)) {
    logLine() << "I/O Operation failed";
    return -1;
  }
  return static_cast<int>(returned);
}

bool closeDevice(HANDLE handle) {
  if (!CloseHandle(handle)) {
    logLine() << "Closing handle failed";
    return false;
  }
  return true;
}

class Win32Device : public Device {
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
    return closeDevice(handle);
  }

 private:
  HANDLE handle_;
};

std::unique_ptr<Device> openDevice(const std::string& path) {
  HANDLE handle = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_EXISTING, 0, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return nullptr;
  return std::make_unique<Win32Device>(handle);
}

class Win32DiskAccess : public DiskAccess {
 public:
  std::unique_ptr<Device> openVolume(const DriveId& drive) override {
    return openDevice(std::string("\\\\.\\") + drive.letter + ":");
  }
  std::unique_ptr<Device> openPhysical(uint32_t deviceNumber) override {
    char path[64];
    std::snprintf(path, sizeof path, "\\\\.\\PHYSICALDRIVE%u", deviceNumber);
    return openDevice(path);
  }
  std::string bootLoaderTarget(const DriveId& drive) override { return std::string(1, drive.letter) + ":"; }
};

class Win32OutputFile : public OutputFile {
 public:
  explicit Win32OutputFile(HANDLE handle) : handle_(handle) {}
  ~Win32OutputFile() override {
    if (handle_ != INVALID_HANDLE_VALUE) CloseHandle(handle_);
  }
  bool write(const uint8_t* data, size_t size) override {
    size_t done = 0;
    while (done < size) {
      DWORD chunk = static_cast<DWORD>(size - done > 0x10000000 ? 0x10000000 : size - done);
      DWORD written = 0;
      if (!WriteFile(handle_, data + done, chunk, &written, nullptr) || written == 0) return false;
      done += written;
    }
    return true;
  }
  bool close() override {
    HANDLE handle = handle_;
    handle_ = INVALID_HANDLE_VALUE;
    return CloseHandle(handle) != 0;
  }

 private:
  HANDLE handle_;
};

std::string rootOf(const DriveId& drive) { return std::string(1, drive.letter) + ":\\"; }

class Win32VolumeFiles : public VolumeFiles {
 public:
  std::unique_ptr<OutputFile> createNew(const DriveId& drive, const std::string& name) override {
    HANDLE file = CreateFileA((rootOf(drive) + name).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return nullptr;
    return std::make_unique<Win32OutputFile>(file);
  }
  bool copyInto(const DriveId& drive, const std::string& source, const std::string& name) override {
    return CopyFileA(source.c_str(), (rootOf(drive) + name).c_str(), FALSE) != 0;
  }
};

}  // namespace

std::unique_ptr<DiskAccess> makePlatformDiskAccess() { return std::make_unique<Win32DiskAccess>(); }
std::unique_ptr<VolumeFiles> makePlatformVolumeFiles() { return std::make_unique<Win32VolumeFiles>(); }
const char* bootLoaderInstallerName() { return "syslinux.exe"; }

bool driveUsable(const DriveId& drive, std::string& reason) {
  for (const RouterRecord& row : listLocalDrives()) {
    if (std::toupper(static_cast<unsigned char>(row.mac[5])) == std::toupper(static_cast<unsigned char>(drive.letter))) {
      return true;
    }
  }
  reason = std::string("drive ") + drive.letter + ": is not a removable or fixed drive other than the system's";
  return false;
}

}  // namespace tarnlift::localdisk
