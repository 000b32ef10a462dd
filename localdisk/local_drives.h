// Local drives as rows of the router table, and their formatting.
//
// A drive row carries the hardware address FF:FF:FF:FF:FF:xx, where xx is
// the drive letter's character code on Windows; that prefix is how the rest
// of the system tells a drive row from a router row. On Linux a drive is a
// whole disk (or an image file named by the user); its label is the device
// path and xx is 'C' plus its position in the list (docs/localdisk.md).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "app/clock.h"
#include "app/sync.h"
#include "install/router_record.h"

namespace tarnlift::localdisk {

// Drive types (the values of the platform's drive type query).
inline constexpr uint32_t kDriveUnknown = 0;
inline constexpr uint32_t kDriveRemovable = 2;
inline constexpr uint32_t kDriveFixed = 3;
inline constexpr uint32_t kDriveRemote = 4;
inline constexpr uint32_t kDriveCdRom = 5;
inline constexpr uint32_t kDriveRamDisk = 6;

// The last address byte of a drive row that names an image file on Linux.
inline constexpr uint8_t kImageFileLetter = 0xFF;

// Which drive an operation is for: Windows goes by the letter, Linux by the
// path (a block device or an image file).
struct DriveId {
  char letter = 0;
  std::string path;
};

// A fresh row for a drive: kind drive, the label, FF:FF:FF:FF:FF:letter,
// the drive type, counters zero and no packages.
install::RouterRecord makeDriveRow(const std::string& label, uint8_t letter, uint32_t driveType);
bool isDriveRow(const install::RouterRecord& row);
DriveId driveIdOf(const install::RouterRecord& row);
// "removable", "fixed" or the number, for listings.
std::string driveTypeText(uint32_t driveType);

// One root the platform lists, before the choice of which may be used.
struct DriveCandidate {
  std::string label;  // Windows: "E:\"; Linux: "/dev/sdb"
  uint8_t letter = 0;
  uint32_t type = kDriveUnknown;
  bool system = false;  // holds the system (Windows: the system directory)
  // The disk's number, size and model, so that the user sees what would be
  // erased; empty when unknown.
  std::string description;
  std::string size;  // "16.0 GB": short enough for the row's last column
};

class DriveEnumerator {
 public:
  virtual ~DriveEnumerator() = default;
  // Every root in the platform's order.
  virtual std::vector<DriveCandidate> candidates() = 0;
};
std::unique_ptr<DriveEnumerator> makePlatformDriveEnumerator();

// The drive rows in the platform's order: removable and fixed drives other
// than the system's and other than drive A.
std::vector<install::RouterRecord> listLocalDrives(DriveEnumerator& enumerator);
std::vector<install::RouterRecord> listLocalDrives();

// "16.0 GB, Maker Model" for a drive row: the size as makers count it
// (10^9 bytes a GB); empty when nothing is known.
std::string diskDescription(uint64_t bytes, const std::string& model);
// The size part of that: "16.0 GB", "512.0 MB"; empty for 0.
std::string diskSizeText(uint64_t bytes);

// Size of a file opened for reading, or -1 when it cannot be opened.
int32_t fileSize(const std::string& path);

// ---- Formatting ---------------------------------------------------------------

// The formatter's child process, behind an interface so that the rules of
// the run (answers, output into the log, five-minute limit) are tested.
class FormatterProcess {
 public:
  enum class Wait { Ended, TimedOut, Failed };
  virtual ~FormatterProcess() = default;
  // The pipes for input and output; false when they cannot be made.
  virtual bool createPipes() = 0;
  // Starts the program with its arguments, one word each (never split
  // again, so a path with blanks stays one argument), in a job (Windows)
  // or process group (Linux) of its own.
  virtual bool start(const std::string& program, const std::vector<std::string>& arguments) = 0;
  virtual void writeInput(const std::string& text) = 0;
  // What the formatter has written since the last call, without waiting.
  virtual std::string takeOutput() = 0;
  // Waits up to milliseconds for the formatter to end, gathering its output
  // meanwhile.
  virtual Wait waitFor(uint32_t milliseconds) = 0;
  // Ends the formatter and everything it started, and waits for it.
  virtual bool terminate() = 0;
  // Closes the pipes and handles.
  virtual void close() = 0;
};

// The platform's formatter process (pipes, hidden window).
std::unique_ptr<FormatterProcess> makePlatformFormatterProcess();

// The program and arguments of the formatter for a drive.
struct FormatterCommand {
  std::string program;
  std::vector<std::string> arguments;
  // The answers written to the formatter's input, in order.
  std::vector<std::string> answers;
  // The command line as the log shows it (and Windows starts it).
  std::string commandLine() const;
};

inline constexpr uint32_t kFormatTimeoutMs = 300000;
// How often the run looks at the clock, the output and a stop request.
inline constexpr uint32_t kFormatPollMs = 100;

// Windows: the formatter of the NT family or of the older family.
FormatterCommand windowsFormatterCommand(bool ntFamily, const std::string& systemDirectory,
                                         const std::string& windowsDirectory, char letter, const std::string& label,
                                         bool fat32);
// Linux: mkfs.fat on the whole disk or image file.
FormatterCommand linuxFormatterCommand(const std::string& mkfsProgram, const std::string& target,
                                       const std::string& label, bool fat32);

// Runs the formatter to its end: true when it ran to its end (its exit code
// is not examined). The time limit counts from the start, on the clock
// given; each line of its output is logged as it comes. A stop set
// meanwhile ends the formatter (and what it started) at once: false.
bool runFormatter(FormatterProcess& process, const FormatterCommand& command, const app::Clock& clock,
                  uint32_t timeoutMs = kFormatTimeoutMs, app::Waitable* stop = nullptr);
bool runFormatter(FormatterProcess& process, const FormatterCommand& command, uint32_t timeoutMs = kFormatTimeoutMs,
                  app::Waitable* stop = nullptr);

class DriveFormatter {
 public:
  virtual ~DriveFormatter() = default;
  // stop: set by the owner to end the format early (null: never).
  virtual bool format(const DriveId& drive, const std::string& label, bool fat32, app::Waitable* stop) = 0;
  // Whether the system needs the format twice (Windows 5.1 and 5.2).
  virtual bool formatsTwice() = 0;
};
std::unique_ptr<DriveFormatter> makePlatformFormatter();

// Formats the drive with the platform's own formatter.
bool formatDrive(const DriveId& drive, const std::string& label, bool fat32);

}  // namespace tarnlift::localdisk
