// A child program with its input and output on pipes, for the Linux tools
// the local disk road drives (the formatter, mtools). Output is collected
// while the child is waited for, so a talkative child never blocks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarnlift::localdisk {

class ChildProcess {
 public:
  enum class Wait { Ended, TimedOut, Failed };
  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool createPipes();
  // argv[0] is the program's path; standard output and error both go to
  // the output pipe. The child leads a process group of its own.
  bool start(const std::vector<std::string>& argv);
  void writeInput(const std::string& text);
  // Up to limit bytes of output: what was collected, else waits up to
  // timeoutMs for some (empty at the end of the output).
  std::string readOutput(size_t limit, uint32_t timeoutMs);
  Wait waitFor(uint32_t milliseconds);
  // Kills the child's whole process group and waits for the child.
  bool terminate();
  void closeInput();
  void close();
  int exitCode() const { return exitCode_; }

 private:
  void collect(int timeoutMs);

  int input_[2] = {-1, -1};
  int output_[2] = {-1, -1};
  int pid_ = -1;
  bool ended_ = false;
  int exitCode_ = -1;
  std::string collected_;
};

// Runs a tool to its end (at most timeoutMs) and gives its exit code (-1
// when it could not be started or was killed) and its output.
int runTool(const std::vector<std::string>& argv, std::string& output, uint32_t timeoutMs);

// The full path of a program from PATH or the system directories (which a
// user's PATH often lacks); empty when there is none.
std::string findProgram(const std::string& name);

}  // namespace tarnlift::localdisk
