// Windows half of the finish command: cmd.exe /c CMD started with
// CreateProcessA, no window, an environment block of this process's
// variables plus the router's, and one pipe for standard output and error.
// The child runs in a job object of its own, so that a kill reaches what it
// started too. It inherits its standard handles and nothing else (not the
// web console's sockets, not another command's pipe): see
// app/child_handles.h. The lock around creating the inheritable pipe,
// starting the child and closing this side's copy keeps that so on systems
// that ignore the handle list.
#include <windows.h>

#include <cctype>
#include <cstring>
#include <mutex>
#include <set>

#include "app/child_handles.h"
#include "install/finish_command.h"

namespace tarnlift::install::finishprocess {

struct Child {
  HANDLE process = nullptr;
  HANDLE job = nullptr;
  HANDLE output = nullptr;
};

void ChildDeleter::operator()(Child* child) const {
  if (child->output != nullptr) CloseHandle(child->output);
  if (child->job != nullptr) CloseHandle(child->job);
  if (child->process != nullptr) CloseHandle(child->process);
  delete child;
}

namespace {
std::mutex startLock;

std::string upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

std::string lastErrorText(const char* what) { return std::string(what) + " (error " + std::to_string(GetLastError()) + ")"; }

// This process's variables without the replaced ones, then the new ones,
// each ended by a zero byte, the block by another.
std::string environmentBlock(const EnvironmentList& environment) {
  std::set<std::string> replaced;
  for (const auto& entry : environment) replaced.insert(upper(entry.first));
  std::string block;
  if (char* strings = GetEnvironmentStringsA(); strings != nullptr) {
    for (const char* entry = strings; *entry != 0; entry += std::strlen(entry) + 1) {
      std::string text = entry;
      // Entries such as "=C:=C:\" start with their own '='.
      size_t equals = text.find('=', 1);
      if (equals != std::string::npos && replaced.count(upper(text.substr(0, equals))) != 0) continue;
      block += text;
      block += '\0';
    }
    FreeEnvironmentStringsA(strings);
  }
  for (const auto& [name, value] : environment) {
    block += name + "=" + value;
    block += '\0';
  }
  block += '\0';
  return block;
}
}  // namespace

ChildPtr start(const std::string& command, const EnvironmentList& environment, std::string& error) {
  std::string block = environmentBlock(environment);
  std::string line = "cmd.exe /c " + command;
  SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  std::lock_guard<std::mutex> lock(startLock);
  HANDLE readEnd = nullptr, writeEnd = nullptr;
  if (!CreatePipe(&readEnd, &writeEnd, &inherit, 0)) {
    error = lastErrorText("no pipe");
    return nullptr;
  }
  SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
  HANDLE input = CreateFileA("NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit, OPEN_EXISTING, 0,
                             nullptr);
  app::ChildStart how;
  how.commandLine = line;
  how.creationFlags = CREATE_NO_WINDOW | CREATE_SUSPENDED;
  how.environment = block.data();
  how.input = input;
  how.output = writeEnd;
  how.error = writeEnd;
  app::StartedChild info;
  uint32_t startError = 0;
  bool started = app::startChildWithHandles(how, info, startError);
  CloseHandle(writeEnd);
  if (input != INVALID_HANDLE_VALUE) CloseHandle(input);
  if (!started) {
    CloseHandle(readEnd);
    error = "cannot start cmd.exe (error " + std::to_string(startError) + ")";
    return nullptr;
  }
  ChildPtr child(new Child);
  child->process = info.process;
  child->output = readEnd;
  // Without a job (a system that refuses it) a kill ends cmd.exe alone.
  child->job = CreateJobObjectA(nullptr, nullptr);
  if (child->job != nullptr && !AssignProcessToJobObject(child->job, info.process)) {
    CloseHandle(child->job);
    child->job = nullptr;
  }
  ResumeThread(info.thread);
  CloseHandle(info.thread);
  return child;
}

bool read(Child& child, std::string& chunk) {
  char buffer[4096];
  DWORD n = 0;
  do {
    if (!ReadFile(child.output, buffer, sizeof buffer, &n, nullptr)) return false;
  } while (n == 0);
  chunk.assign(buffer, n);
  return true;
}

int wait(Child& child) {
  WaitForSingleObject(child.process, INFINITE);
  DWORD code = 0;
  if (!GetExitCodeProcess(child.process, &code)) return -1;
  return static_cast<int>(code);
}

void kill(Child& child) {
  if (child.job == nullptr || !TerminateJobObject(child.job, 1)) TerminateProcess(child.process, 1);
}

}  // namespace tarnlift::install::finishprocess
