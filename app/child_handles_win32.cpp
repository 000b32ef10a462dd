#include <windows.h>

#include <vector>

#include "app/child_handles.h"

namespace tarnlift::app {

bool startChildWithHandles(const ChildStart& start, StartedChild& started, uint32_t& error) {
  std::vector<HANDLE> handles;
  for (void* handle : {start.input, start.output, start.error}) {
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE) continue;
    bool listed = false;
    for (HANDLE h : handles) listed = listed || h == handle;
    if (!listed) handles.push_back(handle);
  }
  SIZE_T size = 0;
  InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
  std::vector<char> attributes(size);
  auto* list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(attributes.data());
  if (!InitializeProcThreadAttributeList(list, 1, 0, &size)) {
    error = GetLastError();
    return false;
  }
  bool listedOk =
      handles.empty() || UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles.data(),
                                                   handles.size() * sizeof(HANDLE), nullptr, nullptr);
  STARTUPINFOEXA startup{};
  startup.StartupInfo.cb = sizeof startup;
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES | (start.hideWindow ? STARTF_USESHOWWINDOW : 0);
  startup.StartupInfo.wShowWindow = SW_HIDE;
  startup.StartupInfo.hStdInput = start.input;
  startup.StartupInfo.hStdOutput = start.output;
  startup.StartupInfo.hStdError = start.error;
  startup.lpAttributeList = list;
  PROCESS_INFORMATION info{};
  std::string line = start.commandLine;
  BOOL ok = FALSE;
  if (listedOk) {
    ok = CreateProcessA(start.application, line.data(), nullptr, nullptr, !handles.empty(),
                        start.creationFlags | EXTENDED_STARTUPINFO_PRESENT, start.environment, start.directory,
                        &startup.StartupInfo, &info);
  }
  error = ok ? 0 : GetLastError();
  DeleteProcThreadAttributeList(list);
  if (!ok) return false;
  started.process = info.hProcess;
  started.thread = info.hThread;
  return true;
}

}  // namespace tarnlift::app
