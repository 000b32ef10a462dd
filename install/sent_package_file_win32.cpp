#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include "install/sent_package_file.h"

namespace tarnlift::install {

bool PackageFile::open(const std::string& path) {
  close();
  int fd = ::_open(path.c_str(), _O_RDONLY | _O_BINARY);
  if (fd < 0) return false;
  handle_ = fd;
  length_ = ::_filelengthi64(fd);
  if (length_ < 0) length_ = 0;
  return true;
}

void PackageFile::close() {
  if (handle_ >= 0) ::_close(handle_);
  handle_ = -1;
  length_ = 0;
}

int64_t PackageFile::readPieces(uint8_t* const* pieces, size_t count, size_t pieceSize) {
  // No scattered read here: one read per piece.
  int64_t total = 0;
  for (size_t i = 0; i < count; ++i) {
    size_t filled = 0;
    while (filled < pieceSize) {
      int got = ::_read(handle_, pieces[i] + filled, static_cast<unsigned>(pieceSize - filled));
      if (got < 0) return -1;
      if (got == 0) return total;
      total += got;
      filled += static_cast<size_t>(got);
    }
  }
  return total;
}

}  // namespace tarnlift::install
