// Windows half of the new-file writer: CreateFileA(CREATE_NEW), then
// WriteFile in pieces that a DWORD can count.
#include <windows.h>

#include "app/new_file.h"

namespace tarnlift::app {

NewFileResult writeNewFile(const std::string& path, const uint8_t* data, size_t size, NewFileUse use) {
  NewFileResult result;
  const DWORD sharing = use == NewFileUse::Program ? 0 : FILE_SHARE_READ | FILE_SHARE_WRITE;
  HANDLE file = CreateFileA(path.c_str(), GENERIC_WRITE, sharing, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return result;
  result.created = true;
  while (result.written < size) {
    const size_t left = size - result.written;
    DWORD chunk = static_cast<DWORD>(left > 0x10000000 ? 0x10000000 : left);
    DWORD written = 0;
    if (!WriteFile(file, data + result.written, chunk, &written, nullptr) || written == 0) break;
    result.written += written;
  }
  result.closed = CloseHandle(file) != 0;
  return result;
}

}  // namespace tarnlift::app
