#include "localdisk/local_drives.h"

#include <cctype>
#include <cstdio>
#include <filesystem>

#include "app/failure.h"
#include "app/log.h"

namespace tarnlift::localdisk {

RouterRecord makeDriveRow(const std::string& label, uint8_t letter, uint32_t driveType) {
  RouterRecord row;
  row.kind = kKindDrive;
  row.label = label;
  row.mac = MacAddress{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, letter};
  row.driveType = driveType;
  return row;
}

bool isDriveRow(const RouterRecord& row) {
  for (size_t i = 0; i < 5; ++i) {
    if (row.mac[i] != 0xFF) return false;
  }
  return true;
}

DriveId driveIdOf(const RouterRecord& row) {
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

std::vector<RouterRecord> listLocalDrives(DriveEnumerator& enumerator) {
  std::vector<RouterRecord> rows;
  for (const DriveCandidate& candidate : enumerator.candidates()) {
    if (candidate.type != kDriveRemovable && candidate.type != kDriveFixed) continue;
    if (candidate.system) continue;
    if (std::toupper(candidate.letter) == 'A') continue;
    rows.push_back(makeDriveRow(candidate.label, candidate.letter, candidate.type));
  }
  return rows;
}

std::vector<RouterRecord> listLocalDrives() {
  std::unique_ptr<DriveEnumerator> enumerator = makePlatformDriveEnumerator();
  return listLocalDrives(*enumerator);
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

FormatterCommand windowsFormatterCommand(bool ntFamily, const std::string& systemDirectory,
                                         const std::string& windowsDirectory, char letter, const std::string& label,
                                         bool fat32) {
  FormatterCommand command;
  if (ntFamily) {
    command.program = systemDirectory + "\\format.com";
    command.commandLine = command.program + " " + letter + ": /FS:" + (fat32 ? "FAT32" : "FAT") + " /Q /X /V:" + label;
  } else {
    command.program = windowsDirectory + "\\Command\\format.com";
    command.commandLine = command.program + " " + letter + ": /Q /V:xxx";
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
  // -I: the whole disk is one volume without a partition table.
  command.commandLine = mkfsProgram + (fat32 ? " -F 32" : "") + " -I -n " + label + " " + target;
  return command;
}

namespace {
// The output as it came, without the line ends that would leave blank lines.
void logOutput(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  if (!text.empty()) logLine() << text;
}
}  // namespace

bool runFormatter(FormatterProcess& process, const FormatterCommand& command, uint32_t timeoutMs) {
  if (!process.createPipes()) {
    logLine() << "Cannot create pipe";
    return false;
  }
  logLine() << "app: " << command.program;
  logLine() << "cmd: " << command.commandLine;
  bool started = process.start(command.program, command.commandLine);
  logLine() << "format before";
  if (!started) {
    logLine() << "Cannot start format";
    process.close();
    return false;
  }
  for (const std::string& answer : command.answers) process.writeInput(answer);
  logOutput(process.readOutput(8196));
  switch (process.waitFor(timeoutMs)) {
    case FormatterProcess::Wait::Failed:
      fatalFailure("Format failed");
    case FormatterProcess::Wait::TimedOut:
      logLine() << "format timeout";
      if (!process.terminate()) logLine() << "even TerminateProcess failed";
      process.close();
      return false;
    case FormatterProcess::Wait::Ended:
      break;
  }
  logOutput(process.readOutput(8196));
  logLine() << "format done";
  process.close();
  return true;
}

bool formatDrive(const DriveId& drive, const std::string& label, bool fat32) {
  std::unique_ptr<DriveFormatter> formatter = makePlatformFormatter();
  return formatter->format(drive, label, fat32);
}

}  // namespace tarnlift::localdisk
