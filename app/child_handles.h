// Starting a child process that inherits only its standard handles. On
// Windows a child started with inheritance on gets every inheritable
// handle of the process, whichever thread made it: a pipe of another
// child, a socket. A command that outlives the server would then hold the
// web console's port, or another command's output, open. This start lists
// the handles the child needs (PROC_THREAD_ATTRIBUTE_HANDLE_LIST), and the
// child gets those alone. Windows only (child_handles_win32.cpp); on POSIX
// descriptors are opened close-on-exec instead.
#pragma once

#include <cstdint>
#include <string>

namespace tarnlift::app {

struct ChildStart {
  const char* application = nullptr;  // null: the first word of commandLine
  std::string commandLine;
  uint32_t creationFlags = 0;
  void* environment = nullptr;      // an ANSI environment block, or null: this process's
  const char* directory = nullptr;  // null: the current directory
  // The child's standard handles (inheritable; the same one may be given twice).
  void* input = nullptr;
  void* output = nullptr;
  void* error = nullptr;
  bool hideWindow = false;
};

struct StartedChild {
  void* process = nullptr;  // the caller closes both
  void* thread = nullptr;
};

// False with the system's error number in error.
bool startChildWithHandles(const ChildStart& start, StartedChild& started, uint32_t& error);

}  // namespace tarnlift::app
