// Windows half of the program runner: the program is an RCDATA resource of
// the executable, written into a folder of the runner's own under the user's
// temporary folder, started with CreateProcessA at an off-screen position so
// that its console window stays out of the user's way, inside a job object
// so that kill ends whatever it started too.
#include <windows.h>

#include <string>

#include "app/failure.h"
#include "app/process_job.h"
#include "app/program_runner.h"

namespace tarnlift::app {

struct ProgramRunner::Process {
  HANDLE handle = nullptr;
  DWORD threadId = 0;
  void* job = nullptr;
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

// How long a kill waits for the ended process to be gone.
constexpr DWORD kTerminateWaitMs = 30000;

std::string temporaryDirectory() {
  char buffer[MAX_PATH + 1] = {};
  DWORD length = GetTempPathA(MAX_PATH, buffer);
  if (length == 0 || length > MAX_PATH) return {};
  return std::string(buffer, length);
}

std::string makePrivateFolder() {
  std::string base = temporaryDirectory();
  if (base.empty()) return {};
  // The user's temporary folder is private to the user already; a name
  // created new (never one that exists) keeps two installations apart.
  static LONG counter = 0;
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string folder = base + "tarnlift-" + std::to_string(GetCurrentProcessId()) + "-" +
                         std::to_string(InterlockedIncrement(&counter)) + "-" + std::to_string(GetTickCount() % 100000);
    if (CreateDirectoryA(folder.c_str(), nullptr)) return folder + "\\";
    if (GetLastError() != ERROR_ALREADY_EXISTS) return {};
  }
  return {};
}

ProgramRunner::ProcessPtr startProcess(const std::string& path, const std::string& commandLine,
                                       const std::vector<std::string>&, uint32_t& error) {
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
  // Suspended until it is in its job: nothing it starts can escape the job.
  // A forgotten copy keeps running, so the job does not kill on close.
  void* job = processjob::create(false);
  if (!CreateProcessA(path.c_str(), line.data(), nullptr, nullptr, FALSE, CREATE_SUSPENDED, nullptr,
                      directoryLength != 0 && directoryLength <= MAX_PATH ? directory : nullptr, &startup, &info)) {
    error = GetLastError();
    processjob::close(job);
    return nullptr;
  }
  processjob::adoptAndResume(job, info.hProcess, info.hThread);
  CloseHandle(info.hThread);
  ProgramRunner::ProcessPtr process(new ProgramRunner::Process);
  process->handle = info.hProcess;
  process->threadId = info.dwThreadId;
  process->job = job;
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
  processjob::endAll(process.job, process.handle, kTerminateWaitMs);
  releaseProcess(process);
}

void releaseProcess(ProgramRunner::Process& process) {
  if (process.handle != nullptr) CloseHandle(process.handle);
  processjob::close(process.job);
  process.handle = nullptr;
  process.job = nullptr;
}

bool deleteFolder(const std::string& folder) {
  if (RemoveDirectoryA(folder.c_str())) return true;
  DWORD error = GetLastError();
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

bool deleteFile(const std::string& path) {
  if (DeleteFileA(path.c_str())) return true;
  DWORD error = GetLastError();
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

}  // namespace runner
}  // namespace tarnlift::app
