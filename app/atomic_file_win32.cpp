#include <windows.h>

#include "app/atomic_file.h"

namespace tarnlift::app {

std::string temporaryPathFor(const std::string& path) { return path + ".tmp." + std::to_string(GetCurrentProcessId()); }

bool processExists(uint32_t processId) {
  HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, processId);
  if (process == nullptr) return GetLastError() != ERROR_INVALID_PARAMETER;
  bool running = WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
  CloseHandle(process);
  return running;
}

uint32_t replaceFileAtomically(const std::string& path, const std::string& bytes) {
  std::string temporary = temporaryPathFor(path);
  HANDLE file =
      CreateFileA(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return GetLastError();
  DWORD written = 0;
  BOOL ok = WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
            written == bytes.size() && FlushFileBuffers(file);
  DWORD error = ok ? 0 : GetLastError();
  CloseHandle(file);
  if (ok && !MoveFileExA(temporary.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    error = GetLastError();
  }
  if (error != 0) DeleteFileA(temporary.c_str());
  return error;
}

}  // namespace tarnlift::app
