#include "app/program_runner.h"

#include <cstdio>

#include "app/failure.h"
#include "app/log.h"
#include "app/new_file.h"
#include "app/sync.h"

namespace tarnlift::app {

namespace {
std::string quotedWord(const std::string& word) {
  if (!word.empty() && word.find_first_of(" \t\n\v\"") == std::string::npos) return word;
  // Backslashes count only before a quote: doubled there (and before the
  // closing quote), as the runtime halves them again.
  std::string text(1, '"');
  size_t backslashes = 0;
  for (char c : word) {
    if (c == '\\') {
      ++backslashes;
      continue;
    }
    text.append(c == '"' ? backslashes * 2 + 1 : backslashes, '\\');
    backslashes = 0;
    text += c;
  }
  text.append(backslashes * 2, '\\');
  text += '"';
  return text;
}
}  // namespace

std::string commandLineOf(const std::string& program, const std::vector<std::string>& arguments) {
  std::string line = quotedWord(program);
  for (const std::string& word : arguments) {
    line += ' ';
    line += quotedWord(word);
  }
  return line;
}

ProgramRunner::ProgramRunner(uint32_t resourceId, std::string fileName, ProgramSource* source)
    : resourceId_(resourceId), fileName_(std::move(fileName)), source_(source) {}

ProgramRunner::~ProgramRunner() {
  cleanUp();
  for (auto& process : forgotten_) runner::releaseProcess(*process);
}

bool ProgramRunner::holdsProcess() const { return process_ != nullptr; }

bool ProgramRunner::run(const std::vector<std::string>& arguments) {
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
  if (path_.empty() && !writeOut()) {
    // Nothing runs that could be mistaken for the program's work.
    logLine() << "Cannot create file";
    return false;
  }
  std::string commandLine = commandLineOf(path_, arguments);
  logLine() << "cmdline: " << commandLine;
  uint32_t error = 0;
  process_ = runner::startProcess(path_, commandLine, arguments, error);
  if (process_ == nullptr) {
    logLine() << "execute: CreateProcess failed: " << error;
    return false;
  }
  return true;
}

bool ProgramRunner::writeOut() {
  // A folder made new for this runner: nothing another user (or another
  // installation) put into the shared temporary directory can stand in the
  // way or be run in the program's place.
  std::string folder = runner::makePrivateFolder();
  std::string path = (folder.empty() ? runner::temporaryDirectory() : folder) + fileName_;
  logLine() << "exe: " << path;
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
  if (folder.empty()) return false;
  // Created exclusively in our own folder, a link at the path never
  // followed; a part-written program is never left behind to be run.
  NewFileResult program = writeNewFile(path, record + 4, length, NewFileUse::Program);
  if (!program.whole(length)) {
    if (program.created) runner::deleteFile(path);
    runner::deleteFolder(folder);
    return false;
  }
  folder_ = folder;
  path_ = path;
  fileWritten_ = true;
  return true;
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
  runner::deleteFolder(folder_);
  fileWritten_ = false;
}

}  // namespace tarnlift::app
