// Windows drives: the logical drive roots (windows_drives), formatted with
// format.com driven through pipes.
#include <windows.h>

#include <cctype>
#include <cstring>

#include "app/child_handles.h"
#include "app/failure.h"
#include "app/log.h"
#include "app/process_job.h"
#include "app/program_runner.h"
#include "localdisk/local_drives.h"
#include "localdisk/windows_drives.h"

namespace tarnlift::localdisk {
namespace {

class PipeFormatterProcess : public FormatterProcess {
 public:
  ~PipeFormatterProcess() override { close(); }
  bool createPipes() override {
    SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    if (!CreatePipe(&inputRead_, &inputWrite_, &inherit, 4096)) return false;
    if (!CreatePipe(&outputRead_, &outputWrite_, &inherit, 4096)) return false;
    return true;
  }
  bool start(const std::string& program, const std::vector<std::string>& arguments) override {
    // Its pipe ends alone: not the web console's sockets or another child's pipe.
    app::ChildStart how;
    how.application = program.c_str();
    how.commandLine = app::commandLineOf(program, arguments);
    how.input = inputRead_;
    how.output = outputWrite_;
    how.error = outputWrite_;
    how.hideWindow = true;
    // In a job from its first instruction: a stop or a time-out ends the
    // formatter and whatever it started, and so does the end of this program.
    how.creationFlags = CREATE_SUSPENDED;
    job_ = app::processjob::create(true);
    app::StartedChild info;
    uint32_t error = 0;
    if (!app::startChildWithHandles(how, info, error)) return false;
    app::processjob::adoptAndResume(job_, info.process, info.thread);
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
  std::string takeOutput() override {
    // Only what is there: a silent formatter must not hold up the clock.
    std::string text;
    DWORD available = 0;
    while (outputRead_ != nullptr && PeekNamedPipe(outputRead_, nullptr, 0, nullptr, &available, nullptr) &&
           available > 0) {
      std::string piece(available, '\0');
      DWORD count = 0;
      if (!ReadFile(outputRead_, piece.data(), available, &count, nullptr) || count == 0) break;
      text.append(piece, 0, count);
    }
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
  bool terminate() override { return process_ != nullptr && app::processjob::endAll(job_, process_, kTerminateWaitMs); }
  void close() override {
    for (HANDLE* handle : {&inputRead_, &inputWrite_, &outputRead_, &outputWrite_, &process_}) {
      if (*handle != nullptr) CloseHandle(*handle);
      *handle = nullptr;
    }
    app::processjob::close(job_);
    job_ = nullptr;
  }

 private:
  static constexpr DWORD kTerminateWaitMs = 30000;
  HANDLE inputRead_ = nullptr;
  HANDLE inputWrite_ = nullptr;
  HANDLE outputRead_ = nullptr;
  HANDLE outputWrite_ = nullptr;
  HANDLE process_ = nullptr;
  void* job_ = nullptr;
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
  bool format(const DriveId& drive, const std::string& label, bool fat32, app::Waitable* stop) override {
    OSVERSIONINFOA version = versionInfo();
    bool nt = version.dwPlatformId == VER_PLATFORM_WIN32_NT;
    char system[MAX_PATH + 1] = {};
    GetSystemDirectoryA(system, MAX_PATH);
    std::string windows;
    if (!nt) {
      char buffer[MAX_PATH + 1] = {};
      if (GetWindowsDirectoryA(buffer, MAX_PATH) == 0) app::fatalFailure("GetWindowsDirectory");
      windows = buffer;
    }
    PipeFormatterProcess process;
    return runFormatter(process, windowsFormatterCommand(nt, system, windows, drive.letter, label, fat32),
                        kFormatTimeoutMs, stop);
  }
  bool formatsTwice() override {
    OSVERSIONINFOA version = versionInfo();
    return version.dwMajorVersion == 5 && (version.dwMinorVersion == 1 || version.dwMinorVersion == 2);
  }
};

}  // namespace

std::unique_ptr<DriveEnumerator> makePlatformDriveEnumerator() {
  return makeWindowsDriveEnumerator(realWindowsStorage());
}
std::unique_ptr<FormatterProcess> makePlatformFormatterProcess() { return std::make_unique<PipeFormatterProcess>(); }
std::unique_ptr<DriveFormatter> makePlatformFormatter() { return std::make_unique<FormatComFormatter>(); }

}  // namespace tarnlift::localdisk
