// Windows half of the program runner: the program is an RCDATA resource of
// the executable, started with CreateProcessA at an off-screen position so
// that its console window stays out of the user's way.
#include <windows.h>

#include "app/failure.h"
#include "app/program_runner.h"

namespace tarnlift {

struct ProgramRunner::Process {
  HANDLE handle = nullptr;
  DWORD threadId = 0;
};

namespace {
class ResourceProgramSource : public ProgramSource {
 public:
  bool findRecord(uint32_t id, const uint8_t*& record, size_t& storedSize) override {
    HMODULE module = GetModuleHandleA(nullptr);
    HRSRC found = FindResourceA(module, MAKEINTRESOURCEA(id), MAKEINTRESOURCEA(10));
    if (found == nullptr) return false;
    HGLOBAL loaded = LoadResource(module, found);
    if (loaded == nullptr) fatalFailure("LoadResource");
    void* locked = LockResource(loaded);
    if (locked == nullptr) fatalFailure("LockResource");
    record = static_cast<const uint8_t*>(locked);
    storedSize = SizeofResource(module, found);
    return true;
  }
};

BOOL CALLBACK takeFirstWindow(HWND window, LPARAM found) {
  *reinterpret_cast<HWND*>(found) = window;
  return FALSE;
}
}  // namespace

ProgramSource* platformProgramSource() {
  static ResourceProgramSource source;
  return &source;
}

void ProgramRunner::ProcessDeleter::operator()(Process* process) const { delete process; }

namespace runner {

std::string temporaryDirectory() {
  char buffer[MAX_PATH + 1] = {};
  DWORD length = GetTempPathA(MAX_PATH, buffer);
  if (length == 0 || length > MAX_PATH) return {};
  return std::string(buffer, length);
}

bool writeProgramFile(const std::string& path, const uint8_t* data, size_t size) {
  HANDLE file = CreateFileA(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  size_t done = 0;
  while (done < size) {
    DWORD chunk = static_cast<DWORD>(size - done > 0x10000000 ? 0x10000000 : size - done);
    DWORD written = 0;
    if (!WriteFile(file, data + done, chunk, &written, nullptr) || written == 0) break;
    done += written;
  }
  CloseHandle(file);
  return done == size;
}

ProgramRunner::ProcessPtr startProcess(const std::string& path, const std::string& commandLine,
                                                     const std::string&, uint32_t& error) {
  char directory[MAX_PATH + 1] = {};
  DWORD directoryLength = GetCurrentDirectoryA(MAX_PATH, directory);
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USEPOSITION | STARTF_USESHOWWINDOW;
  startup.dwX = static_cast<DWORD>(-200);
  startup.dwY = static_cast<DWORD>(-200);
  startup.wShowWindow = SW_SHOWNORMAL;
  PROCESS_INFORMATION info{};
  std::string line = commandLine;
  if (!CreateProcessA(path.c_str(), line.data(), nullptr, nullptr, FALSE, 0, nullptr,
                      directoryLength != 0 && directoryLength <= MAX_PATH ? directory : nullptr, &startup, &info)) {
    error = GetLastError();
    return nullptr;
  }
  CloseHandle(info.hThread);
  ProgramRunner::ProcessPtr process(new ProgramRunner::Process);
  process->handle = info.hProcess;
  process->threadId = info.dwThreadId;
  return process;
}

bool processRunning(ProgramRunner::Process& process) {
  DWORD code = 0;
  if (process.handle == nullptr || !GetExitCodeProcess(process.handle, &code)) return false;
  return code == STILL_ACTIVE;
}

void bringForward(ProgramRunner::Process& process) {
  HWND window = nullptr;
  EnumThreadWindows(process.threadId, takeFirstWindow, reinterpret_cast<LPARAM>(&window));
  if (window != nullptr) SetForegroundWindow(window);
}

void terminateProcess(ProgramRunner::Process& process) {
  if (process.handle == nullptr) return;
  TerminateProcess(process.handle, 0);
  CloseHandle(process.handle);
  process.handle = nullptr;
}

void releaseProcess(ProgramRunner::Process& process) {
  if (process.handle != nullptr) CloseHandle(process.handle);
  process.handle = nullptr;
}

bool deleteFile(const std::string& path) {
  if (DeleteFileA(path.c_str())) return true;
  DWORD error = GetLastError();
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

}  // namespace runner
}  // namespace tarnlift
