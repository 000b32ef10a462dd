// Windows drives: the logical drive roots, formatted with format.com driven
// through pipes.
#include <windows.h>

#include <cctype>
#include <cstring>

#include "app/child_handles.h"
#include "app/failure.h"
#include "app/log.h"
#include "localdisk/local_drives.h"

namespace tarnlift::localdisk {
namespace {

class LogicalDriveEnumerator : public DriveEnumerator {
 public:
  std::vector<DriveCandidate> candidates() override {
    char system[512] = {};
    if (GetSystemDirectoryA(system, sizeof system) == 0) fatalFailure("GetSystemDirectory");
    char systemLetter = static_cast<char>(std::toupper(static_cast<unsigned char>(system[0])));
    char roots[512] = {};
    if (GetLogicalDriveStringsA(sizeof roots, roots) == 0) fatalFailure("GetLogicalDriveStrings");
    std::vector<DriveCandidate> result;
    for (const char* root = roots; *root != 0; root += std::strlen(root) + 1) {
      DriveCandidate candidate;
      candidate.label = root;
      candidate.letter = static_cast<uint8_t>(root[0]);
      candidate.type = GetDriveTypeA(root);
      candidate.system = std::toupper(static_cast<unsigned char>(root[0])) == systemLetter;
      result.push_back(candidate);
    }
    return result;
  }
};

class PipeFormatterProcess : public FormatterProcess {
 public:
  ~PipeFormatterProcess() override { close(); }
  bool createPipes() override {
    SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    if (!CreatePipe(&inputRead_, &inputWrite_, &inherit, 4096)) return false;
    if (!CreatePipe(&outputRead_, &outputWrite_, &inherit, 4096)) return false;
    return true;
  }
  bool start(const std::string& program, const std::string& commandLine) override {
    // Its pipe ends alone: not the web console's sockets or another child's pipe.
    ChildStart how;
    how.application = program.c_str();
    how.commandLine = commandLine;
    how.input = inputRead_;
    how.output = outputWrite_;
    how.error = outputWrite_;
    how.hideWindow = true;
    StartedChild info;
    uint32_t error = 0;
    if (!startChildWithHandles(how, info, error)) return false;
    process_ = info.process;
    CloseHandle(info.thread);
    // The child holds its own ends now; with ours closed, reading its
    // output ends when it does instead of waiting for ever.
    CloseHandle(inputRead_);
    CloseHandle(outputWrite_);
    inputRead_ = nullptr;
    outputWrite_ = nullptr;
    return true;
  }
  void writeInput(const std::string& text) override {
    DWORD written = 0;
    WriteFile(inputWrite_, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
  }
  std::string readOutput(size_t limit) override {
    std::string text(limit, '\0');
    DWORD count = 0;
    // Blocks until the formatter says something or its output ends.
    if (!ReadFile(outputRead_, text.data(), static_cast<DWORD>(limit), &count, nullptr)) return {};
    text.resize(count);
    return text;
  }
  Wait waitFor(uint32_t milliseconds) override {
    switch (WaitForSingleObject(process_, milliseconds)) {
      case WAIT_OBJECT_0:
        return Wait::Ended;
      case WAIT_TIMEOUT:
        return Wait::TimedOut;
      default:
        return Wait::Failed;
    }
  }
  bool terminate() override { return process_ != nullptr && TerminateProcess(process_, 0); }
  void close() override {
    for (HANDLE* handle : {&inputRead_, &inputWrite_, &outputRead_, &outputWrite_, &process_}) {
      if (*handle != nullptr) CloseHandle(*handle);
      *handle = nullptr;
    }
  }

 private:
  HANDLE inputRead_ = nullptr;
  HANDLE inputWrite_ = nullptr;
  HANDLE outputRead_ = nullptr;
  HANDLE outputWrite_ = nullptr;
  HANDLE process_ = nullptr;
};

OSVERSIONINFOA versionInfo() {
  OSVERSIONINFOA info{};
  info.dwOSVersionInfoSize = sizeof info;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  GetVersionExA(&info);
#pragma GCC diagnostic pop
  return info;
}

class FormatComFormatter : public DriveFormatter {
 public:
  bool format(const DriveId& drive, const std::string& label, bool fat32) override {
    OSVERSIONINFOA version = versionInfo();
    bool nt = version.dwPlatformId == VER_PLATFORM_WIN32_NT;
    char system[MAX_PATH + 1] = {};
    GetSystemDirectoryA(system, MAX_PATH);
    std::string windows;
    if (!nt) {
      char buffer[MAX_PATH + 1] = {};
      if (GetWindowsDirectoryA(buffer, MAX_PATH) == 0) fatalFailure("GetWindowsDirectory");
      windows = buffer;
    }
    PipeFormatterProcess process;
    return runFormatter(process, windowsFormatterCommand(nt, system, windows, drive.letter, label, fat32));
  }
  bool formatsTwice() override {
    OSVERSIONINFOA version = versionInfo();
    return version.dwMajorVersion == 5 && (version.dwMinorVersion == 1 || version.dwMinorVersion == 2);
  }
};

}  // namespace

std::unique_ptr<DriveEnumerator> makePlatformDriveEnumerator() { return std::make_unique<LogicalDriveEnumerator>(); }
std::unique_ptr<FormatterProcess> makePlatformFormatterProcess() { return std::make_unique<PipeFormatterProcess>(); }
std::unique_ptr<DriveFormatter> makePlatformFormatter() { return std::make_unique<FormatComFormatter>(); }

}  // namespace tarnlift::localdisk
