#include "localdisk/local_drives.h"

#include <cctype>
#include <cstdio>
#include <filesystem>

#include "app/failure.h"
#include "app/log.h"
#include "app/program_runner.h"

namespace tarnlift::localdisk {

install::RouterRecord makeDriveRow(const std::string& label, uint8_t letter, uint32_t driveType) {
  install::RouterRecord row;
  row.kind = install::kKindDrive;
  row.label = label;
  row.mac = net::MacAddress{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, letter};
  row.driveType = driveType;
  return row;
}

bool isDriveRow(const install::RouterRecord& row) {
  for (size_t i = 0; i < 5; ++i) {
    if (row.mac[i] != 0xFF) return false;
  }
  return true;
}

DriveId driveIdOf(const install::RouterRecord& row) {
  DriveId drive;
  drive.letter = static_cast<char>(row.mac[5]);
  drive.path = row.label;
  return drive;
}

std::string driveTypeText(uint32_t driveType) {
  switch (driveType) {
    case kDriveRemovable:
      return "removable";
    case kDriveFixed:
      return "fixed";
    default:
      return std::to_string(driveType);
  }
}

std::vector<install::RouterRecord> listLocalDrives(DriveEnumerator& enumerator) {
  std::vector<install::RouterRecord> rows;
  for (const DriveCandidate& candidate : enumerator.candidates()) {
    if (candidate.type != kDriveRemovable && candidate.type != kDriveFixed) continue;
    if (candidate.system) continue;
    if (std::toupper(candidate.letter) == 'A') continue;
    rows.push_back(makeDriveRow(candidate.label, candidate.letter, candidate.type));
    rows.back().driveDescription = candidate.description;
    rows.back().driveSize = candidate.size;
  }
  return rows;
}

std::vector<install::RouterRecord> listLocalDrives() {
  std::unique_ptr<DriveEnumerator> enumerator = makePlatformDriveEnumerator();
  return listLocalDrives(*enumerator);
}

std::string diskSizeText(uint64_t bytes) {
  if (bytes == 0) return {};
  char size[32];
  // As makers count: 1 GB is 10^9 bytes.
  if (bytes >= 1000000000ull) {
    std::snprintf(size, sizeof size, "%.1f GB", static_cast<double>(bytes) / 1e9);
  } else {
    std::snprintf(size, sizeof size, "%.1f MB", static_cast<double>(bytes) / 1e6);
  }
  return size;
}

std::string diskDescription(uint64_t bytes, const std::string& model) {
  std::string text = diskSizeText(bytes);
  if (!model.empty()) text += (text.empty() ? "" : ", ") + model;
  return text;
}

int32_t fileSize(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return -1;
  std::fclose(file);
  std::error_code error;
  uintmax_t size = std::filesystem::file_size(path, error);
  if (error) return -1;
  return static_cast<int32_t>(size);
}

std::string FormatterCommand::commandLine() const { return app::commandLineOf(program, arguments); }

FormatterCommand windowsFormatterCommand(bool ntFamily, const std::string& systemDirectory,
                                         const std::string& windowsDirectory, char letter, const std::string& label,
                                         bool fat32) {
  FormatterCommand command;
  std::string drive = std::string(1, letter) + ":";
  if (ntFamily) {
    command.program = systemDirectory + "\\format.com";
    command.arguments = {drive, std::string("/FS:") + (fat32 ? "FAT32" : "FAT"), "/Q", "/X", "/V:" + label};
  } else {
    command.program = windowsDirectory + "\\Command\\format.com";
    command.arguments = {drive, "/Q", "/V:xxx"};
  }
  // Enter for "insert the disk", then the label, which is also the answer
  // to the question whether to go ahead.
  command.answers = {"\r\n", label + "\r\n"};
  return command;
}

FormatterCommand linuxFormatterCommand(const std::string& mkfsProgram, const std::string& target,
                                       const std::string& label, bool fat32) {
  FormatterCommand command;
  command.program = mkfsProgram;
  if (fat32) command.arguments = {"-F", "32"};
  // -I: the whole disk is one volume without a partition table.
  for (const char* word : {"-I", "-n"}) command.arguments.push_back(word);
  command.arguments.push_back(label);
  command.arguments.push_back(target);
  return command;
}

namespace {

// The formatter's output, logged a line at a time as the lines come in; a
// line not yet ended waits for its end (or for the end of the output).
class OutputLines {
 public:
  void add(const std::string& text) {
    pending_ += text;
    size_t end;
    while ((end = pending_.find_first_of("\r\n")) != std::string::npos) {
      emit(pending_.substr(0, end));
      pending_.erase(0, end + 1);
    }
  }
  void finish() {
    emit(pending_);
    pending_.clear();
  }

 private:
  static void emit(const std::string& line) {
    if (!line.empty()) app::logLine() << line;
  }
  std::string pending_;
};

// Ends the formatter after a time-out or a stop: false for the caller.
bool endFormatter(FormatterProcess& process, OutputLines& lines) {
  if (!process.terminate()) app::logLine() << "even TerminateProcess failed";
  lines.add(process.takeOutput());
  lines.finish();
  process.close();
  return false;
}

}  // namespace

bool runFormatter(FormatterProcess& process, const FormatterCommand& command, const app::Clock& clock,
                  uint32_t timeoutMs, app::Waitable* stop) {
  if (!process.createPipes()) {
    app::logLine() << "Cannot create pipe";
    return false;
  }
  app::logLine() << "app: " << command.program;
  app::logLine() << "cmd: " << command.commandLine();
  bool started = process.start(command.program, command.arguments);
  app::logLine() << "format before";
  if (!started) {
    app::logLine() << "Cannot start format";
    process.close();
    return false;
  }
  // The limit counts from here, whatever the formatter says or keeps quiet.
  const uint64_t startedAt = clock.nowMicros();
  for (const std::string& answer : command.answers) process.writeInput(answer);
  OutputLines lines;
  while (true) {
    uint64_t elapsedMs = (clock.nowMicros() - startedAt) / 1000;
    if (stop != nullptr && stop->waitFor(0)) {
      app::logLine() << "format stopped";
      return endFormatter(process, lines);
    }
    if (elapsedMs >= timeoutMs) {
      app::logLine() << "format timeout";
      return endFormatter(process, lines);
    }
    uint64_t left = timeoutMs - elapsedMs;
    FormatterProcess::Wait wait = process.waitFor(static_cast<uint32_t>(left < kFormatPollMs ? left : kFormatPollMs));
    lines.add(process.takeOutput());
    if (wait == FormatterProcess::Wait::Failed) app::fatalFailure("Format failed");
    if (wait == FormatterProcess::Wait::Ended) break;
  }
  lines.finish();
  app::logLine() << "format done";
  process.close();
  return true;
}

bool runFormatter(FormatterProcess& process, const FormatterCommand& command, uint32_t timeoutMs, app::Waitable* stop) {
  return runFormatter(process, command, app::SteadyClock::instance(), timeoutMs, stop);
}

bool formatDrive(const DriveId& drive, const std::string& label, bool fat32) {
  std::unique_ptr<DriveFormatter> formatter = makePlatformFormatter();
  return formatter->format(drive, label, fat32, nullptr);
}

}  // namespace tarnlift::localdisk
