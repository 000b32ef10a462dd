// Windows device access over the system's volumes and disks
// (windows_drives), and files in "X:\".
#include <windows.h>
#include <winioctl.h>

#include <cctype>
#include <cstdio>

#include "localdisk/disk_access.h"
#include "localdisk/windows_drives.h"

namespace tarnlift::localdisk {
namespace {

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

std::unique_ptr<DiskAccess> makePlatformDiskAccess() { return makeWindowsDiskAccess(realWindowsStorage()); }
std::unique_ptr<VolumeFiles> makePlatformVolumeFiles() { return std::make_unique<Win32VolumeFiles>(); }
const char* bootLoaderInstallerName() { return "syslinux.exe"; }

}  // namespace tarnlift::localdisk
