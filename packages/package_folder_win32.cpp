// Package folder on Windows: FindFirstFileA for the listing (which matches
// without regard to case, as Explorer users expect) and CreateFileA for
// reading.
#include <windows.h>

#include "packages/package_folder.h"

namespace tarnlift::packages {
namespace {

class Win32FileSource : public PackageFileSource {
 public:
  explicit Win32FileSource(HANDLE file) : file_(file) {}
  ~Win32FileSource() override { CloseHandle(file_); }

  size_t read(void* buffer, size_t size) override {
    size_t total = 0;
    while (total < size) {
      const DWORD want = static_cast<DWORD>(size - total > 0x40000000 ? 0x40000000 : size - total);
      DWORD got = 0;
      if (!ReadFile(file_, static_cast<char*>(buffer) + total, want, &got, nullptr) || got == 0) break;
      total += got;
    }
    bytesRead_ += total;
    return total;
  }
  bool canSeek() const override { return true; }
  bool skip(uint64_t count) override {
    LARGE_INTEGER distance;
    distance.QuadPart = count > static_cast<uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<LONGLONG>(count);
    return SetFilePointerEx(file_, distance, nullptr, FILE_CURRENT) != 0;
  }
  int64_t length() override {
    LARGE_INTEGER size;
    if (!GetFileSizeEx(file_, &size)) return -1;
    return size.QuadPart;
  }
  uint64_t bytesRead() const override { return bytesRead_; }

 private:
  HANDLE file_;
  uint64_t bytesRead_ = 0;
};

}  // namespace

std::unique_ptr<PackageFileSource> openPackageFile(const std::string& path) {
  HANDLE file = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                            FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return nullptr;
  if (GetFileType(file) != FILE_TYPE_DISK) {
    CloseHandle(file);
    return nullptr;
  }
  return std::make_unique<Win32FileSource>(file);
}

std::string joinFolderPath(const std::string& folder, const std::string& name) {
  if (folder.empty()) return name;
  if (folder.back() == '\\' || folder.back() == '/') return folder + name;
  return folder + "\\" + name;
}

bool folderReadable(const std::string& folder) {
  const DWORD attributes = GetFileAttributesA(folder.empty() ? "." : folder.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) return false;
  WIN32_FIND_DATAA data;
  HANDLE find = FindFirstFileA(joinFolderPath(folder.empty() ? "." : folder, "*").c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) return GetLastError() == ERROR_FILE_NOT_FOUND;
  FindClose(find);
  return true;
}

std::vector<std::string> listFolderFiles(const std::string& folder, const std::string& extension) {
  std::vector<std::string> names;
  WIN32_FIND_DATAA data;
  HANDLE find = FindFirstFileA(joinFolderPath(folder, "*" + extension).c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) return names;
  do {
    if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) names.push_back(data.cFileName);
  } while (FindNextFileA(find, &data));
  FindClose(find);
  return names;
}

}  // namespace tarnlift::packages
