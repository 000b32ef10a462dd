#include "install/finish_command.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "app/log.h"

namespace tarnlift::install {

namespace {
// A command that writes without line ends still reaches the log in pieces.
constexpr size_t kLongestLine = 4000;
// After the kill, how long stop() waits for the workers to come back.
constexpr auto kAfterKill = std::chrono::milliseconds(2000);

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    if (!text.empty()) text += ' ';
    text += word;
  }
  return text;
}
}  // namespace

EnvironmentList finishEnvironment(const RouterResult& r) {
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.3f", r.seconds);
  return {{"TARNLIFT_TIME", r.time},
          {"TARNLIFT_MAC", r.mac},
          {"TARNLIFT_RESULT", r.success ? "installed" : "failed"},
          {"TARNLIFT_CONFIRMED", r.confirmed ? "true" : "false"},
          {"TARNLIFT_LABEL", r.label},
          {"TARNLIFT_ARCHITECTURE", r.architecture},
          {"TARNLIFT_ADDRESS", r.address},
          {"TARNLIFT_FILES", joined(r.files)},
          {"TARNLIFT_VERSIONS", joined(r.versions)},
          {"TARNLIFT_BYTES", std::to_string(r.bytes)},
          {"TARNLIFT_SECONDS", seconds},
          {"TARNLIFT_TEXT", r.text}};
}

struct FinishCommand::State {
  std::string command;
  size_t maxRunning = 1;
  std::mutex mutex;
  std::condition_variable wake;     // workers: a run is queued, or quit
  std::condition_variable changed;  // stop(): a run ended
  std::deque<RouterResult> queue;
  std::map<finishprocess::Child*, bool> running;  // child, killed by stop()
  std::vector<std::thread> threads;
  size_t idle = 0;
  size_t busy = 0;
  size_t completed = 0;
  bool stopping = false;  // submits are ignored
  bool killing = false;   // a child that starts now is killed at once
  bool quit = false;      // workers end when the queue is empty
  bool stopped = false;
};

namespace {

using State = FinishCommand::State;

void logOutput(const std::string& prefix, std::string& pending, bool all) {
  size_t start = 0;
  while (true) {
    size_t end = pending.find('\n', start);
    if (end == std::string::npos) {
      if (pending.size() - start < kLongestLine && !all) break;
      if (start == pending.size()) break;
      end = std::min(pending.size(), start + kLongestLine);
      std::string line = pending.substr(start, end - start);
      app::logLine() << prefix << line;
      start = end;
      continue;
    }
    std::string line = pending.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    app::logLine() << prefix << line;
    start = end + 1;
  }
  pending.erase(0, start);
}

void runOne(State& state, const RouterResult& job) {
  const std::string prefix = "on-finish " + job.mac + ": ";
  std::string error;
  finishprocess::ChildPtr child = finishprocess::start(state.command, finishEnvironment(job), error);
  if (!child) {
    app::logLine(app::LogPriority::Warning) << prefix << "cannot run the command: " << error;
    return;
  }
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    state.running[child.get()] = state.killing;
    if (state.killing) finishprocess::kill(*child);
  }
  std::string pending, chunk;
  while (finishprocess::read(*child, chunk)) {
    pending += chunk;
    logOutput(prefix, pending, false);
  }
  logOutput(prefix, pending, true);
  bool killed = false;
  {
    std::lock_guard<std::mutex> lock(state.mutex);
    killed = state.running[child.get()];
    state.running.erase(child.get());
  }
  int code = finishprocess::wait(*child);
  if (killed) {
    app::logLine(app::LogPriority::Warning) << prefix << "killed at the server's stop";
    return;
  }
  if (code == 0) {
    app::logLine() << prefix << "exit code 0";
  } else {
    app::logLine(app::LogPriority::Warning) << prefix << "exit code " << code;
  }
  std::lock_guard<std::mutex> lock(state.mutex);
  ++state.completed;
}

void work(std::shared_ptr<State> state) {
  std::unique_lock<std::mutex> lock(state->mutex);
  while (true) {
    ++state->idle;
    state->wake.wait(lock, [&] { return state->quit || !state->queue.empty(); });
    --state->idle;
    if (state->queue.empty()) return;
    RouterResult job = std::move(state->queue.front());
    state->queue.pop_front();
    ++state->busy;
    lock.unlock();
    runOne(*state, job);
    lock.lock();
    --state->busy;
    state->changed.notify_all();
  }
}

}  // namespace

FinishCommand::FinishCommand(std::string command, size_t maxRunning) : state_(std::make_shared<State>()) {
  state_->command = std::move(command);
  state_->maxRunning = maxRunning == 0 ? 1 : maxRunning;
}

FinishCommand::~FinishCommand() { stop(kDefaultStopWaitMs); }

void FinishCommand::submit(const RouterResult& result) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  if (state_->stopping) return;
  state_->queue.push_back(result);
  // Workers start as runs need them, up to the bound.
  if (state_->idle == 0 && state_->threads.size() < state_->maxRunning) {
    state_->threads.emplace_back(work, state_);
  }
  state_->wake.notify_one();
}

void FinishCommand::stop(uint32_t milliseconds) {
  std::unique_lock<std::mutex> lock(state_->mutex);
  if (state_->stopped) return;
  state_->stopped = true;
  state_->stopping = true;
  State& state = *state_;
  bool drained = state.changed.wait_for(lock, std::chrono::milliseconds(milliseconds),
                                        [&] { return state.queue.empty() && state.busy == 0; });
  if (!drained) {
    size_t dropped = state.queue.size();
    state.queue.clear();
    state.killing = true;
    for (auto& [child, killed] : state.running) {
      killed = true;
      finishprocess::kill(*child);
    }
    app::logLine(app::LogPriority::Warning)
        << "on-finish: " << state.busy << " still running after " << milliseconds / 1000.0 << " s: killed; " << dropped
        << " waiting: not run";
  }
  state.quit = true;
  state.wake.notify_all();
  // A killed command ends at once; a worker that still does not come back
  // (its output held open by something the kill did not reach) is left to
  // the end of the process.
  bool back = state.changed.wait_for(lock, kAfterKill, [&] { return state.busy == 0; });
  std::vector<std::thread> threads = std::move(state.threads);
  lock.unlock();
  for (std::thread& thread : threads) {
    if (back) {
      thread.join();
    } else {
      thread.detach();
    }
  }
}

size_t FinishCommand::completed() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->completed;
}

}  // namespace tarnlift::install
