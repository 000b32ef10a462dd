// Runs a program that travels inside this one: writes it out once into a
// folder of its own under the temporary directory, starts it as a separate
// process, lets the caller poll it, and kills it and deletes the file when
// asked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tarnlift::app {

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

  // Starts the program with the arguments, one word each (a word may hold
  // blanks). A copy that still runs is brought to the front and forgotten; a
  // new one is started all the same. False when the program could not be
  // written out ("Cannot create file" is logged) or not started (logged as
  // well): the caller must not count on its work then.
  virtual bool run(const std::vector<std::string>& arguments);
  // True while the started process has not ended.
  virtual bool isRunning();
  // Ends the process and everything it started, waits for it, forgets it.
  virtual void kill();
  // Kills a held process, then deletes the written file (100 tries, 50 ms
  // apart; a file that stays is left without a report) and its folder.
  virtual void cleanUp();

  const std::string& path() const { return path_; }
  // The runner's own folder under the temporary directory; empty until the
  // program has been written out.
  const std::string& folder() const { return folder_; }
  uint32_t resourceId() const { return resourceId_; }
  bool holdsProcess() const;

  struct Process;
  // Processes are the platform's; its half deletes them.
  struct ProcessDeleter {
    void operator()(Process* process) const;
  };
  using ProcessPtr = std::unique_ptr<Process, ProcessDeleter>;

 private:
  bool writeOut();

  uint32_t resourceId_;
  std::string fileName_;
  std::string folder_;
  std::string path_;
  bool fileWritten_ = false;
  ProgramSource* source_;
  ProcessPtr process_;
  std::vector<ProcessPtr> forgotten_;
};

// The program and its arguments as one command line: a word with blanks,
// tabs or quotes (or an empty one) is quoted so that the program gets it back
// whole, after the rules of the Windows C runtime. Windows starts programs
// with it; both platforms log it.
std::string commandLineOf(const std::string& program, const std::vector<std::string>& arguments);

// ---- Platform halves ----------------------------------------------------------
namespace runner {
// The temporary directory with its trailing separator.
std::string temporaryDirectory();
// A new folder under the temporary directory that is this process's alone
// (Linux: mkdtemp, mode 0700; Windows: a name of its own, created new in
// the user's temporary folder), with its trailing separator; empty when
// none can be made. Nobody else can have put anything into it.
std::string makePrivateFolder();
// Starts path with the arguments in the current directory, in a process
// group (Linux) or job (Windows) of its own so that kill ends everything it
// starts. Null on failure, with the system's error number in error.
ProgramRunner::ProcessPtr startProcess(const std::string& path, const std::string& commandLine,
                                       const std::vector<std::string>& arguments, uint32_t& error);
// Whether the process still runs; false when its state cannot be read.
bool processRunning(ProgramRunner::Process& process);
// Brings the first top-level window of the process's main thread forward.
void bringForward(ProgramRunner::Process& process);
// Ends the process and everything it started with exit code 0, waits for
// it and releases it.
void terminateProcess(ProgramRunner::Process& process);
// Releases what is left of a process that is no longer wanted.
void releaseProcess(ProgramRunner::Process& process);
bool deleteFile(const std::string& path);
// Removes the (empty) folder; false when it stays.
bool deleteFolder(const std::string& folder);
}  // namespace runner

}  // namespace tarnlift::app
