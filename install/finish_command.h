// `serve --on-finish CMD`: a program run after each router ends, with the
// facts of the results line in environment variables. The installer only
// queues the facts; worker threads start the commands, copy their output
// into the log line by line and wait for them, so a slow or hanging command
// never delays a router. At most a few run at once; the others wait their
// turn in order. On stop the queue gets a bounded time to drain, then what
// still runs is killed (with everything it started) and what waits is
// dropped, both logged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "install/results_log.h"

namespace tarnlift::install {

using EnvironmentList = std::vector<std::pair<std::string, std::string>>;

// The variables a finish command gets: TARNLIFT_TIME, TARNLIFT_MAC,
// TARNLIFT_RESULT (installed/failed), TARNLIFT_LABEL, TARNLIFT_ARCHITECTURE,
// TARNLIFT_ADDRESS, TARNLIFT_FILES and TARNLIFT_VERSIONS (separated by
// blanks, in the same order), TARNLIFT_BYTES, TARNLIFT_SECONDS, TARNLIFT_TEXT.
EnvironmentList finishEnvironment(const RouterResult& result);

class FinishCommand {
 public:
  static constexpr size_t kDefaultMaxRunning = 4;
  static constexpr uint32_t kDefaultStopWaitMs = 10000;

  explicit FinishCommand(std::string command, size_t maxRunning = kDefaultMaxRunning);
  // Stops with the default wait when stop() was not called.
  ~FinishCommand();
  FinishCommand(const FinishCommand&) = delete;
  FinishCommand& operator=(const FinishCommand&) = delete;

  // Queues a run for one ended router; returns at once.
  void submit(const RouterResult& result);
  // Waits up to milliseconds for every queued and running command to end,
  // then kills the running ones and drops the queued ones. Later submits are
  // ignored.
  void stop(uint32_t milliseconds);

  // Commands that ended by themselves (killed ones do not count).
  size_t completed() const;

  struct State;

 private:
  std::shared_ptr<State> state_;
};

// ---- Platform halves ----------------------------------------------------------
namespace finishprocess {
struct Child;
struct ChildDeleter {
  void operator()(Child* child) const;
};
using ChildPtr = std::unique_ptr<Child, ChildDeleter>;

// Starts command through the system's command interpreter (/bin/sh -c on
// Linux, cmd.exe /c on Windows) with this process's environment plus
// `environment` (replacing variables of the same names), standard input
// from the null device and standard output and error into one pipe. Null
// with the reason in error.
ChildPtr start(const std::string& command, const EnvironmentList& environment, std::string& error);
// Blocks for the child's next output; false once the output has ended.
bool read(Child& child, std::string& chunk);
// Waits for the child to end and returns its exit code (128 + signal when a
// signal ended it on Linux).
int wait(Child& child);
// Kills the child and what it started; may be called from another thread
// while read() blocks, as long as wait() has not returned.
void kill(Child& child);
}  // namespace finishprocess

}  // namespace tarnlift::install
