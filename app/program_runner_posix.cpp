// Linux half of the program runner. The program is written out with the
// executable bit, started with posix_spawn in the current directory (the
// arguments are split at blanks; no shell is involved), polled with
// waitpid(WNOHANG) and ended with SIGKILL. There is no window to bring
// forward and none to keep off screen.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "app/program_runner.h"

extern char** environ;

namespace tarnlift {

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

bool writeProgramFile(const std::string& path, const uint8_t* data, size_t size) {
  // Replace by removing first: a name in a shared directory may be a link
  // left by someone else, which must not be followed.
  ::unlink(path.c_str());
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0700);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < size) {
    ssize_t written = ::write(fd, data + done, size - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) break;
    done += static_cast<size_t>(written);
  }
  ::close(fd);
  return done == size;
}

ProgramRunner::ProcessPtr startProcess(const std::string& path, const std::string&,
                                                     const std::string& arguments, uint32_t& error) {
  std::vector<std::string> words{path};
  std::istringstream split(arguments);
  for (std::string word; split >> word;) words.push_back(word);
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  int result = posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv.data(), environ);
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
    ::kill(process.pid, SIGKILL);
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

}  // namespace runner
}  // namespace tarnlift
