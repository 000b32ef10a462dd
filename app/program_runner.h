// Runs a program that travels inside this one: writes it out once to the
// temporary directory, starts it as a separate process, lets the caller
// poll it, and kills it and deletes the file when asked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tarnlift {

// Where the embedded programs are kept: numbered records, each a 32-bit
// little-endian length followed by that many bytes of the program file.
class ProgramSource {
 public:
  virtual ~ProgramSource() = default;
  // The stored record (length field included) and its stored size; false
  // when there is no record with this id.
  virtual bool findRecord(uint32_t id, const uint8_t*& record, size_t& storedSize) = 0;
};

// The platform's own place for embedded programs: the executable's RCDATA
// resources on Windows; on Linux there is none (null) and the caller hands
// a source over (the boot image store's directory).
ProgramSource* platformProgramSource();

class ProgramRunner {
 public:
  // source null: the platform's own source.
  ProgramRunner(uint32_t resourceId, std::string fileName, ProgramSource* source = nullptr);
  virtual ~ProgramRunner();
  ProgramRunner(const ProgramRunner&) = delete;
  ProgramRunner& operator=(const ProgramRunner&) = delete;

  // Starts the program with the arguments (words separated by blanks). A
  // copy that still runs is brought to the front and forgotten; a new one
  // is started all the same. A failed start is only logged.
  virtual void run(const std::string& arguments);
  // True while the started process has not ended.
  virtual bool isRunning();
  // Ends the process and forgets it.
  virtual void kill();
  // Kills a held process, then deletes the written file (100 tries, 50 ms
  // apart; a file that stays is left without a report).
  virtual void cleanUp();

  const std::string& path() const { return path_; }
  uint32_t resourceId() const { return resourceId_; }
  bool holdsProcess() const;

  struct Process;
  // Processes are the platform's; its half deletes them.
  struct ProcessDeleter {
    void operator()(Process* process) const;
  };
  using ProcessPtr = std::unique_ptr<Process, ProcessDeleter>;

 private:
  void writeOut();

  uint32_t resourceId_;
  std::string fileName_;
  std::string path_;
  bool fileWritten_ = false;
  ProgramSource* source_;
  ProcessPtr process_;
  std::vector<ProcessPtr> forgotten_;
};

// ---- Platform halves ----------------------------------------------------------
namespace runner {
// The temporary directory with its trailing separator.
std::string temporaryDirectory();
// Writes bytes to path as an executable file, replacing any file there;
// false when it cannot be opened (then nothing is written).
bool writeProgramFile(const std::string& path, const uint8_t* data, size_t size);
// Starts path with the command line (path, blank, arguments) in the current
// directory. Null on failure, with the system's error number in error.
ProgramRunner::ProcessPtr startProcess(const std::string& path, const std::string& commandLine,
                                       const std::string& arguments, uint32_t& error);
// Whether the process still runs; false when its state cannot be read.
bool processRunning(ProgramRunner::Process& process);
// Brings the first top-level window of the process's main thread forward.
void bringForward(ProgramRunner::Process& process);
// Ends the process with exit code 0 and releases it.
void terminateProcess(ProgramRunner::Process& process);
// Releases what is left of a process that is no longer wanted.
void releaseProcess(ProgramRunner::Process& process);
bool deleteFile(const std::string& path);
}  // namespace runner

}  // namespace tarnlift
