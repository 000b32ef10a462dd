// Linux half of the finish command: /bin/sh -c CMD started with posix_spawn
// in a process group of its own, so that a kill reaches what the command
// started too, and so that the terminal's Ctrl+C is serve's to handle. The
// output pipe is close-on-exec here: a command started by another worker
// at the same moment never holds this one's pipe open.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "install/finish_command.h"

extern char** environ;

namespace tarnlift::install::finishprocess {

struct Child {
  pid_t pid = -1;
  int output = -1;
  bool reaped = false;
};

void ChildDeleter::operator()(Child* child) const {
  if (child->output >= 0) ::close(child->output);
  if (!child->reaped) {
    ::killpg(child->pid, SIGKILL);
    while (waitpid(child->pid, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  delete child;
}

ChildPtr start(const std::string& command, const EnvironmentList& environment, std::string& error) {
  std::set<std::string> replaced;
  std::vector<std::string> variables;
  for (const auto& [name, value] : environment) {
    replaced.insert(name);
    variables.push_back(name + "=" + value);
  }
  std::vector<char*> envp;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const char* equals = std::strchr(*entry, '=');
    std::string name = equals == nullptr ? std::string(*entry) : std::string(*entry, static_cast<size_t>(equals - *entry));
    if (replaced.count(name) == 0) envp.push_back(*entry);
  }
  for (std::string& variable : variables) envp.push_back(variable.data());
  envp.push_back(nullptr);

  int pipe[2];
  if (pipe2(pipe, O_CLOEXEC) != 0) {
    error = std::string("no pipe: ") + std::strerror(errno);
    return nullptr;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, pipe[1], 1);
  posix_spawn_file_actions_adddup2(&actions, pipe[1], 2);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  // Whatever serve ignores or blocks is not the command's business.
  sigaddset(&defaults, SIGPIPE);
  sigaddset(&defaults, SIGINT);
  sigaddset(&defaults, SIGTERM);
  sigaddset(&defaults, SIGHUP);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  std::string shell = "/bin/sh", option = "-c", text = command;
  char* argv[] = {shell.data(), option.data(), text.data(), nullptr};
  pid_t pid = -1;
  int result = posix_spawn(&pid, shell.c_str(), &actions, &attributes, argv, envp.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipe[1]);
  if (result != 0) {
    ::close(pipe[0]);
    error = "cannot start /bin/sh: " + std::string(std::strerror(result));
    return nullptr;
  }
  ChildPtr child(new Child);
  child->pid = pid;
  child->output = pipe[0];
  return child;
}

bool read(Child& child, std::string& chunk) {
  char buffer[4096];
  while (true) {
    ssize_t n = ::read(child.output, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    chunk.assign(buffer, static_cast<size_t>(n));
    return true;
  }
}

int wait(Child& child) {
  int status = 0;
  pid_t result;
  while ((result = waitpid(child.pid, &status, 0)) < 0 && errno == EINTR) {
  }
  child.reaped = true;
  if (result < 0) return -1;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

void kill(Child& child) {
  if (!child.reaped) ::killpg(child.pid, SIGKILL);
}

}  // namespace tarnlift::install::finishprocess
