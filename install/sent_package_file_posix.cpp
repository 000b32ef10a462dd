#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "install/sent_package_file.h"

namespace tarnlift::install {

bool PackageFile::open(const std::string& path) {
  close();
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat info {};
  if (::fstat(fd, &info) != 0) {
    ::close(fd);
    return false;
  }
  handle_ = fd;
  length_ = static_cast<int64_t>(info.st_size);
  // The file is read once from start to end: let the system read ahead.
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  return true;
}

void PackageFile::close() {
  if (handle_ >= 0) ::close(handle_);
  handle_ = -1;
  length_ = 0;
}

int64_t PackageFile::readPieces(uint8_t* const* pieces, size_t count, size_t pieceSize) {
  constexpr size_t kMaxPieces = 64;
  iovec vector[kMaxPieces];
  int64_t total = 0;
  size_t done = 0;
  // readv fills each piece before the next; only the end of the file makes
  // it stop short, but a signal may too, so go on until it says end.
  while (done < count) {
    size_t n = 0;
    for (size_t i = done; i < count && n < kMaxPieces; ++i, ++n) vector[n] = {pieces[i], pieceSize};
    ssize_t got = ::readv(handle_, vector, static_cast<int>(n));
    if (got < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (got == 0) break;
    total += got;
    size_t full = static_cast<size_t>(got) / pieceSize;
    size_t rest = static_cast<size_t>(got) % pieceSize;
    if (rest != 0) {
      // A short piece: read its remainder on its own, then carry on.
      uint8_t* tail = pieces[done + full] + rest;
      size_t want = pieceSize - rest;
      while (want > 0) {
        ssize_t more = ::read(handle_, tail, want);
        if (more < 0 && errno == EINTR) continue;
        if (more < 0) return -1;
        if (more == 0) return total;
        total += more;
        tail += more;
        want -= static_cast<size_t>(more);
      }
      ++full;
    }
    done += full;
  }
  return total;
}

}  // namespace tarnlift::install
