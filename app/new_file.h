// Creating a file that must not exist yet and writing it whole, for the boot
// image records written out on request and the external programs written
// out to run. Creating exclusively means a file that is already there (the
// user's own, or one somebody placed) is never overwritten.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tarnlift::app {

enum class NewFileUse {
  Data,     // readable by everyone (0644); others may read it while it is written
  Program,  // executable by the owner only (0700); a link at the path is never followed
};

struct NewFileResult {
  bool created = false;  // false: the path exists already or cannot be created
  size_t written = 0;    // bytes that reached the file
  bool closed = false;   // the system took the file back without an error
  bool whole(size_t size) const { return created && written == size && closed; }
};

NewFileResult writeNewFile(const std::string& path, const uint8_t* data, size_t size, NewFileUse use);

}  // namespace tarnlift::app
