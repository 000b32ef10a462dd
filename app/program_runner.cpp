#include "app/program_runner.h"

#include <cstdio>

#include "app/failure.h"
#include "app/log.h"
#include "app/sync.h"

namespace tarnlift {

ProgramRunner::ProgramRunner(uint32_t resourceId, std::string fileName, ProgramSource* source)
    : resourceId_(resourceId), fileName_(std::move(fileName)), source_(source) {}

ProgramRunner::~ProgramRunner() {
  cleanUp();
  for (auto& process : forgotten_) runner::releaseProcess(*process);
}

bool ProgramRunner::holdsProcess() const { return process_ != nullptr; }

void ProgramRunner::run(const std::string& arguments) {
  if (process_ != nullptr) {
    if (runner::processRunning(*process_)) {
      logLine() << "already running";
      runner::bringForward(*process_);
    }
    // The old copy goes its own way: its handle is closed now, and on Linux
    // it is reaped later so that it does not linger.
    runner::releaseProcess(*process_);
    forgotten_.push_back(std::move(process_));
  }
  logLine() << "run embedded prog";
  if (path_.empty()) writeOut();
  std::string commandLine = path_ + " " + arguments;
  logLine() << "cmdline: " << commandLine;
  uint32_t error = 0;
  process_ = runner::startProcess(path_, commandLine, arguments, error);
  if (process_ == nullptr) logLine() << "execute: CreateProcess failed: " << error;
}

void ProgramRunner::writeOut() {
  path_ = runner::temporaryDirectory() + fileName_;
  fileWritten_ = true;
  logLine() << "exe: " << path_;
  ProgramSource* source = source_ != nullptr ? source_ : platformProgramSource();
  const uint8_t* record = nullptr;
  size_t storedSize = 0;
  if (source == nullptr || !source->findRecord(resourceId_, record, storedSize)) {
    std::printf("ResourceID=%d\n", static_cast<int>(resourceId_));
    std::fflush(stdout);
    fatalFailure("FindResource");
  }
  if (record == nullptr || storedSize < 4) fatalFailure("LoadResource");
  uint32_t length =
      uint32_t(record[0]) | uint32_t(record[1]) << 8 | uint32_t(record[2]) << 16 | uint32_t(record[3]) << 24;
  if (length > storedSize - 4) fatalFailure("LoadResource");
  // A file that cannot be opened is not reported: the start fails instead.
  runner::writeProgramFile(path_, record + 4, length);
}

bool ProgramRunner::isRunning() { return process_ != nullptr && runner::processRunning(*process_); }

void ProgramRunner::kill() {
  if (process_ == nullptr) return;
  runner::terminateProcess(*process_);
  process_.reset();
}

void ProgramRunner::cleanUp() {
  if (process_ != nullptr) kill();
  if (!fileWritten_) return;
  // The file stays locked for a moment after the process ends.
  for (int attempt = 0; attempt < 100; ++attempt) {
    if (runner::deleteFile(path_)) break;
    sleepMilliseconds(50);
  }
  fileWritten_ = false;
}

}  // namespace tarnlift
