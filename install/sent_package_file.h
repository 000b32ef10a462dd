// A package file opened for sending: its length, and sequential reads that
// fill several chunk-sized pieces of memory at once, so that a file's data
// goes from the system straight behind the headers of the datagrams that
// carry it (one system call for many chunks, no copy in between).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tarnlift::install {

class PackageFile {
 public:
  PackageFile() = default;
  ~PackageFile() { close(); }
  PackageFile(const PackageFile&) = delete;
  PackageFile& operator=(const PackageFile&) = delete;

  // Opens read-only (binary); false when that fails.
  bool open(const std::string& path);
  bool isOpen() const { return handle_ >= 0; }
  void close();
  // The length in bytes as the file stood when it was opened.
  int64_t length() const { return length_; }
  // Reads the next bytes of the file into pieces[0], then pieces[1], ...,
  // each up to pieceSize bytes, filling each before the next. Returns the
  // bytes read in all (less than count * pieceSize only at the end of the
  // file), or -1 when the system reports an error.
  int64_t readPieces(uint8_t* const* pieces, size_t count, size_t pieceSize);

 private:
  int handle_ = -1;
  int64_t length_ = 0;
};

}  // namespace tarnlift::install
