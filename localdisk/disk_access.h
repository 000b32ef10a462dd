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

class DiskAccess {
 public:
  virtual ~DiskAccess() = default;
  // The drive's volume, for reading and writing; null when it cannot be
  // opened (or, on Linux, may not be used: the reason is logged).
  virtual std::unique_ptr<Device> openVolume(const DriveId& drive) = 0;
  // The whole disk with the device number the volume gave; null on failure.
  virtual std::unique_ptr<Device> openPhysical(uint32_t deviceNumber) = 0;
  // How the boot loader's installer names the drive ("X:" or the disk).
  virtual std::string bootLoaderTarget(const DriveId& drive) = 0;
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

// Whether the drive may be erased; when not, reason says why in one line
// (Linux: a disk with a mounted partition or swap, the system's disk, a
// path that is neither a disk nor an image file, or none at all).
bool driveUsable(const DriveId& drive, std::string& reason);

// The platform's implementations.
std::unique_ptr<DiskAccess> makePlatformDiskAccess();
std::unique_ptr<VolumeFiles> makePlatformVolumeFiles();

// The record numbers of the local disk's files.
inline constexpr int kImageDiskKernel = 120;
inline constexpr int kImageDiskSyslinuxConfig = 124;
inline constexpr int kImageDiskInitrd = 132;
inline constexpr int kImageDiskSyslinuxInstaller = 134;
// The name the installer is written out under.
const char* bootLoaderInstallerName();

// Everything a disk installation uses; the defaults are the platform's.
struct DiskServices {
  DiskAccess* devices = nullptr;
  DriveFormatter* formatter = nullptr;
  VolumeFiles* files = nullptr;
  SourceFiles* sources = nullptr;
  // Makes the runner for the boot loader's installer (record 134).
  std::function<std::unique_ptr<ProgramRunner>()> makeBootLoaderRunner;
};

// The platform's services, made once and kept for the life of the process.
DiskServices& platformDiskServices();

// A program source over the boot image store (the records the local disk
// uses live there on every platform).
ProgramSource& bootImageProgramSource();

}  // namespace tarnlift::localdisk
