// Linux half of the program runner. The program is written into a folder of
// the runner's own (mkdtemp, mode 0700) with the executable bit, started with
// posix_spawn in the current directory as the leader of a process group of
// its own (no shell is involved), polled with waitpid(WNOHANG) and ended
// with SIGKILL to its whole group. There is no window to bring forward and
// none to keep off screen.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "app/program_runner.h"

extern char** environ;

namespace tarnlift::app {

struct ProgramRunner::Process {
  pid_t pid = -1;
  bool ended = false;  // reaped: its exit status is known
};

ProgramSource* platformProgramSource() { return nullptr; }

void ProgramRunner::ProcessDeleter::operator()(Process* process) const { delete process; }

namespace runner {
namespace {
// Reaps the process if it has ended; false when its state cannot be read.
bool poll(ProgramRunner::Process& process) {
  if (process.ended) return true;
  int status = 0;
  pid_t result = waitpid(process.pid, &status, WNOHANG);
  if (result == process.pid) process.ended = true;
  return result >= 0;
}
}  // namespace

std::string temporaryDirectory() {
  const char* directory = std::getenv("TMPDIR");
  std::string text = directory != nullptr && directory[0] != 0 ? directory : "/tmp";
  if (text.size() > 260) text = "/tmp";
  if (text.back() != '/') text += '/';
  return text;
}

std::string makePrivateFolder() {
  std::string pattern = temporaryDirectory() + "tarnlift-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) return {};
  return pattern + "/";
}

ProgramRunner::ProcessPtr startProcess(const std::string& path, const std::string&,
                                       const std::vector<std::string>& arguments, uint32_t& error) {
  std::vector<std::string> words{path};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  pid_t pid = -1;
  int result = posix_spawn(&pid, path.c_str(), nullptr, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  if (result != 0) {
    error = static_cast<uint32_t>(result);
    return nullptr;
  }
  ProgramRunner::ProcessPtr process(new ProgramRunner::Process);
  process->pid = pid;
  return process;
}

bool processRunning(ProgramRunner::Process& process) { return poll(process) && !process.ended; }

void bringForward(ProgramRunner::Process&) {}

void terminateProcess(ProgramRunner::Process& process) {
  if (poll(process) && !process.ended) {
    // The group: what the program started dies with it.
    if (::kill(-process.pid, SIGKILL) != 0) ::kill(process.pid, SIGKILL);
    int status = 0;
    while (waitpid(process.pid, &status, 0) < 0 && errno == EINTR) {
    }
    process.ended = true;
  }
}

void releaseProcess(ProgramRunner::Process& process) {
  // A forgotten copy keeps running; reap it if it has ended so that it does
  // not linger as a zombie.
  poll(process);
}

bool deleteFile(const std::string& path) { return ::unlink(path.c_str()) == 0 || errno == ENOENT; }

bool deleteFolder(const std::string& folder) { return ::rmdir(folder.c_str()) == 0 || errno == ENOENT; }

}  // namespace runner
}  // namespace tarnlift::app
