// Package folder on POSIX systems: readdir for the listing, plain file
// descriptors for reading, so that every byte read is a byte asked for.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "packages/package_folder.h"

namespace tarnlift::packages {
namespace {

class PosixFileSource : public PackageFileSource {
 public:
  explicit PosixFileSource(int fd) : fd_(fd) {}
  ~PosixFileSource() override { ::close(fd_); }

  size_t read(void* buffer, size_t size) override {
    size_t total = 0;
    while (total < size) {
      const ssize_t got = ::read(fd_, static_cast<char*>(buffer) + total, size - total);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      total += static_cast<size_t>(got);
    }
    bytesRead_ += total;
    return total;
  }
  bool canSeek() const override { return true; }
  bool skip(uint64_t count) override {
    // Moving beyond the end is allowed; the next read then gets nothing.
    if (count > static_cast<uint64_t>(INT64_MAX)) count = INT64_MAX;
    return ::lseek(fd_, static_cast<off_t>(count), SEEK_CUR) != static_cast<off_t>(-1);
  }
  int64_t length() override {
    struct stat info;
    if (::fstat(fd_, &info) != 0) return -1;
    return static_cast<int64_t>(info.st_size);
  }
  uint64_t bytesRead() const override { return bytesRead_; }

 private:
  int fd_;
  uint64_t bytesRead_ = 0;
};

bool isDirectory(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

std::unique_ptr<PackageFileSource> openPackageFile(const std::string& path) {
  // Non-blocking open so that a pipe named like a package cannot hold the
  // scan; only regular files are read.
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat info;
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    return nullptr;
  }
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags >= 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  return std::make_unique<PosixFileSource>(fd);
}

std::string joinFolderPath(const std::string& folder, const std::string& name) {
  if (folder.empty()) return name;
  if (folder.back() == '/') return folder + name;
  return folder + "/" + name;
}

bool folderReadable(const std::string& folder) {
  DIR* dir = ::opendir(folder.empty() ? "." : folder.c_str());
  if (dir == nullptr) return false;
  ::closedir(dir);
  return true;
}

std::vector<std::string> listFolderFiles(const std::string& folder, const std::string& extension) {
  std::vector<std::string> names;
  DIR* dir = ::opendir(folder.empty() ? "." : folder.c_str());
  if (dir == nullptr) return names;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.size() < extension.size() ||
        name.compare(name.size() - extension.size(), extension.size(), extension) != 0) {
      continue;
    }
    if (entry->d_type == DT_DIR) continue;
    if (entry->d_type == DT_UNKNOWN && isDirectory(joinFolderPath(folder, name))) continue;
    names.push_back(name);
  }
  ::closedir(dir);
  return names;
}

}  // namespace tarnlift::packages
