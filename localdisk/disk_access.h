// What the disk installation needs from the platform, in small pieces: raw
// device access (sector 0 and the volume-to-disk mapping), the files of the
// new volume, and the boot loader's installer. Windows uses volumes and
// physical drives; Linux uses block devices or image files and writes the
// unmounted FAT volume through mtools.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "app/program_runner.h"
#include "localdisk/local_drives.h"

namespace tarnlift::localdisk {

// The answer of the storage device number query: device type, device
// number, partition number.
struct StorageDeviceNumber {
  uint32_t deviceType = 0;
  uint32_t deviceNumber = 0;
  uint32_t partitionNumber = 0;
};
inline constexpr int kStorageDeviceNumberSize = 12;

// An open volume or disk. The wrappers log a fixed line and return a
// failure value instead of throwing: read "Read from device failed" (-1),
// write "Write from device failed" (-1), seek "Seeking device failed"
// (false), device control "I/O Operation failed" (-1), close "Closing
// handle failed" (false). The destructor closes a device still open.
class Device {
 public:
  virtual ~Device() = default;
  virtual int read(uint8_t* buffer, uint32_t size) = 0;
  virtual int write(const uint8_t* buffer, uint32_t size) = 0;
  // From the start of the device.
  virtual bool seek(uint64_t offset) = 0;
  // The storage device number; the number of answer bytes, or -1.
  virtual int deviceNumber(StorageDeviceNumber& number) = 0;
  // Flushes what the platform holds for the device and closes it.
  virtual bool close() = 0;
};

// A drive resolved once, checked and opened once, and held for the whole
// installation: every later step works through what was opened, and before
// each step the drive's name must still lead to it. Closing the devices it
// hands out leaves the hold; destroying the hold lets the drive go.
class HeldDrive {
 public:
  virtual ~HeldDrive() = default;
  // Steps 2 and 15: the held volume, as a second handle of its own.
  virtual std::unique_ptr<Device> openVolume() = 0;
  // Step 4: the whole disk, given the device number the volume answered.
  // Null, with the reason, when the number is not the held volume's disk,
  // when what else is on that disk forbids erasing it, or when it cannot
  // be opened. Windows locks and dismounts the volume here, before sector
  // 0 is touched, and asks the held handles for the disk number again.
  virtual std::unique_ptr<Device> openPhysical(uint32_t deviceNumber, std::string& reason) = 0;
  // Before each later step: whether the name still leads to what is held
  // and nothing has taken it meanwhile; reason says what changed.
  virtual bool unchanged(std::string& reason) = 0;
  // The formatter opens the drive itself and wants it alone: the hold
  // stays, but its exclusive claim (Linux: O_EXCL; Windows: the volume's
  // lock) is given up while the formatter runs and taken back afterwards,
  // which fails when someone else took the drive meanwhile.
  virtual void lendToFormatter() = 0;
  virtual bool takeBack(std::string& reason) = 0;
  // How the formatter and the volume's files reach the held drive (Linux:
  // the held descriptor as /proc/PID/fd/N; Windows: its letter).
  virtual DriveId reach() const = 0;
  // How the boot loader's installer names it ("X:" or that path).
  virtual std::string bootLoaderTarget() const = 0;
};

class DiskAccess {
 public:
  virtual ~DiskAccess() = default;
  // Whether the drive may be erased, by what it is; when not, reason says
  // why in one line that names it. Nothing is written.
  virtual bool check(const DriveId& drive, std::string& reason) = 0;
  // Step 2: resolves the drive once, checks it and opens it for the whole
  // installation; null, with the reason, when it may not be used or cannot
  // be opened.
  virtual std::unique_ptr<HeldDrive> hold(const DriveId& drive, std::string& reason) = 0;
};

// A new file on the drive being written.
class OutputFile {
 public:
  virtual ~OutputFile() = default;
  // False on a short write.
  virtual bool write(const uint8_t* data, size_t size) = 0;
  // Completes the file; false when it could not be completed.
  virtual bool close() = 0;
};

class VolumeFiles {
 public:
  virtual ~VolumeFiles() = default;
  // A new file in the drive's root, only if none of that name exists; null
  // otherwise (the caller logs "Cannot create file").
  virtual std::unique_ptr<OutputFile> createNew(const DriveId& drive, const std::string& name) = 0;
  // Copies a file of the PC into the drive's root under name, overwriting.
  virtual bool copyInto(const DriveId& drive, const std::string& source, const std::string& name) = 0;
};

// The size of a file of the PC: 0 with size set; 1 when it cannot be
// opened; 2 when its size cannot be taken.
class SourceFiles {
 public:
  virtual ~SourceFiles() = default;
  virtual int size(const std::string& path, uint64_t& size) = 0;
};
std::unique_ptr<SourceFiles> makeSourceFiles();

// The platform's implementations.
std::unique_ptr<DiskAccess> makePlatformDiskAccess();
std::unique_ptr<VolumeFiles> makePlatformVolumeFiles();

// The record numbers of the local disk's files.
inline constexpr int kImageDiskKernel = 120;
inline constexpr int kImageDiskSyslinuxConfig = 124;
inline constexpr int kImageDiskInitrd = 132;
inline constexpr int kImageDiskSyslinuxInstaller = 134;
// The name the installer is written out under (in a folder of its own).
const char* bootLoaderInstallerName();

// Everything a disk installation uses; the defaults are the platform's.
struct DiskServices {
  DiskAccess* devices = nullptr;
  DriveFormatter* formatter = nullptr;
  VolumeFiles* files = nullptr;
  SourceFiles* sources = nullptr;
  // Makes the runner for the boot loader's installer (record 134).
  std::function<std::unique_ptr<app::ProgramRunner>()> makeBootLoaderRunner;
};

// The platform's services, made once and kept for the life of the process.
DiskServices& platformDiskServices();

// A program source over the boot image store (the records the local disk
// uses live there on every platform).
app::ProgramSource& bootImageProgramSource();

}  // namespace tarnlift::localdisk
