#include "localdisk/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <sstream>

extern char** environ;

namespace tarnlift::localdisk {

namespace {
void closeFd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}
int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}
}  // namespace

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !ended_) terminate();
  close();
}

bool ChildProcess::createPipes() {
  if (pipe2(input_, O_CLOEXEC) != 0) return false;
  if (pipe2(output_, O_CLOEXEC) != 0) {
    closeFd(input_[0]);
    closeFd(input_[1]);
    return false;
  }
  // A child that does not read its input must not make the writes block.
  fcntl(input_[1], F_SETFL, O_NONBLOCK);
  return true;
}

bool ChildProcess::start(const std::vector<std::string>& argv) {
  if (argv.empty()) return false;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input_[0], 0);
  posix_spawn_file_actions_adddup2(&actions, output_[1], 1);
  posix_spawn_file_actions_adddup2(&actions, output_[1], 2);
  std::vector<std::string> words = argv;
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  // A process group of its own: terminate ends what the tool started too.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  pid_t pid = -1;
  int result = posix_spawn(&pid, words[0].c_str(), &actions, &attributes, pointers.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  closeFd(input_[0]);
  closeFd(output_[1]);
  if (result != 0) return false;
  pid_ = pid;
  return true;
}

void ChildProcess::writeInput(const std::string& text) {
  if (input_[1] < 0) return;
  signal(SIGPIPE, SIG_IGN);
  ssize_t ignored = ::write(input_[1], text.data(), text.size());
  (void)ignored;
}

void ChildProcess::collect(int timeoutMs) {
  if (output_[0] < 0) return;
  pollfd entry{output_[0], POLLIN, 0};
  if (poll(&entry, 1, timeoutMs) <= 0) return;
  char buffer[4096];
  ssize_t count = ::read(output_[0], buffer, sizeof buffer);
  if (count > 0) {
    collected_.append(buffer, static_cast<size_t>(count));
  } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
    closeFd(output_[0]);
  }
}

std::string ChildProcess::readOutput(size_t limit, uint32_t timeoutMs) {
  int64_t deadline = nowMs() + timeoutMs;
  while (collected_.empty() && output_[0] >= 0) {
    int64_t left = deadline - nowMs();
    if (left <= 0) break;
    collect(static_cast<int>(left > 1000 ? 1000 : left));
  }
  std::string text = collected_.substr(0, limit);
  collected_.erase(0, text.size());
  return text;
}

ChildProcess::Wait ChildProcess::waitFor(uint32_t milliseconds) {
  if (pid_ <= 0) return Wait::Failed;
  int64_t deadline = nowMs() + milliseconds;
  while (true) {
    int status = 0;
    pid_t result = waitpid(pid_, &status, WNOHANG);
    if (result < 0 && errno != EINTR) return Wait::Failed;
    if (result == pid_) {
      ended_ = true;
      exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      // What the child wrote last is still in the pipe.
      while (output_[0] >= 0) collect(100);
      return Wait::Ended;
    }
    int64_t left = deadline - nowMs();
    if (left <= 0) return Wait::TimedOut;
    if (output_[0] >= 0) {
      collect(static_cast<int>(left > 50 ? 50 : left));
    } else {
      usleep(static_cast<useconds_t>((left > 50 ? 50 : left) * 1000));
    }
  }
}

bool ChildProcess::terminate() {
  if (pid_ <= 0 || ended_) return false;
  if (::kill(-pid_, SIGKILL) != 0 && ::kill(pid_, SIGKILL) != 0) return false;
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  ended_ = true;
  return true;
}

void ChildProcess::closeInput() { closeFd(input_[1]); }

void ChildProcess::close() {
  closeFd(input_[0]);
  closeFd(input_[1]);
  closeFd(output_[0]);
  closeFd(output_[1]);
}

int runTool(const std::vector<std::string>& argv, std::string& output, uint32_t timeoutMs) {
  ChildProcess child;
  if (!child.createPipes() || !child.start(argv)) return -1;
  child.closeInput();  // nothing to say to it: it reads the end at once
  ChildProcess::Wait wait = child.waitFor(timeoutMs);
  if (wait == ChildProcess::Wait::TimedOut) child.terminate();
  for (std::string piece; !(piece = child.readOutput(1 << 20, 0)).empty();) output += piece;
  return wait == ChildProcess::Wait::Ended ? child.exitCode() : -1;
}

std::string findProgram(const std::string& name) {
  std::string path = std::getenv("PATH") != nullptr ? std::getenv("PATH") : "";
  path += ":/usr/local/sbin:/usr/sbin:/sbin:/usr/bin:/bin";
  std::istringstream split(path);
  for (std::string directory; std::getline(split, directory, ':');) {
    if (directory.empty()) continue;
    std::string candidate = directory + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return {};
}

}  // namespace tarnlift::localdisk
