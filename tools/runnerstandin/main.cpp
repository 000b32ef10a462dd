// runnerstandin MILLISECONDS NOTE-FILE [WORDS...]
// Appends one line to NOTE-FILE (a path relative to the working directory)
// holding the words it got and prints it on standard output; with "-" as
// NOTE-FILE it writes no note but reads one line of its input and prints it
// after "answer ", like a formatter asking a question; with "=" it does
// neither. Then it lives for MILLISECONDS before it exits 0.
// With "--child" among the words it first starts a copy of itself that only
// lives as long, and prints (and notes) "child PID": the tests see whether
// ending a program ends what it started too.
// The runner's tests use it to see that a program was written out, started
// with its arguments in the current directory, and can be polled and killed.
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

#ifdef _WIN32
#include <windows.h>
#else
#include <spawn.h>
#include <unistd.h>
extern char** environ;
#endif

namespace {

// Starts "SELF MILLISECONDS =" and gives its process id (0 on failure).
unsigned long startChild(const char* self, const char* milliseconds) {
#ifdef _WIN32
  std::string line = std::string("\"") + self + "\" " + milliseconds + " =";
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION info{};
  if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info)) return 0;
  CloseHandle(info.hThread);
  CloseHandle(info.hProcess);
  return info.dwProcessId;
#else
  char equals[] = "=";
  char* argv[] = {const_cast<char*>(self), const_cast<char*>(milliseconds), equals, nullptr};
  pid_t pid = 0;
  if (posix_spawn(&pid, self, nullptr, nullptr, argv, environ) != 0) return 0;
  return static_cast<unsigned long>(pid);
#endif
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  long milliseconds = std::strtol(argv[1], nullptr, 10);
  std::string note = argv[2];
  std::string line = "started";
  bool child = false;
  for (int i = 3; i < argc; ++i) {
    line += std::string(" ") + argv[i];
    child = child || std::string(argv[i]) == "--child";
  }
  bool ask = note == "-";
  bool quiet = note == "=";
  if (child) {
    std::string childLine = "child " + std::to_string(startChild(argv[0], argv[1]));
    if (!ask && !quiet) std::ofstream(note, std::ios::app) << childLine << '\n';
    std::cout << childLine << std::endl;
  }
  if (!ask && !quiet) {
    std::ofstream out(note, std::ios::app);
    out << line << '\n';
  }
  if (!quiet) std::cout << line << std::endl;
  if (ask) {
    std::string answer;
    if (std::getline(std::cin, answer)) std::cout << "answer " << answer << std::endl;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
  return 0;
}
