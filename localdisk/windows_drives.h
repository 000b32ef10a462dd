// Windows drives: the drive list, which drives may be erased, and the held
// drive of an installation, written over a small interface to the system's
// volumes and disks so that the rules and their order are tested with
// made-up machines on every platform; the Windows half supplies the real
// one (volume and physical drive handles, DeviceIoControl).
//
// A drive letter names a volume; the installation erases the whole
// physical disk under it. So a drive may be erased only when nothing else
// lives on that disk: not the system volume, the Windows folder or a page
// file, and no other volume at all.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "localdisk/disk_access.h"
#include "localdisk/local_drives.h"

namespace tarnlift::localdisk {

// A volume of the system: its name ("\\?\Volume{...}\"), the paths it is
// mounted at ("C:\"), and the physical disks its extents lie on.
struct WindowsVolume {
  std::string name;
  std::vector<std::string> paths;
  std::vector<uint32_t> disks;
};

struct DiskDescription {
  uint64_t bytes = 0;
  std::string model;
};

// A volume or physical drive handle with the volume controls.
class WindowsDevice : public Device {
 public:
  virtual bool lockVolume() = 0;      // FSCTL_LOCK_VOLUME
  virtual bool dismountVolume() = 0;  // FSCTL_DISMOUNT_VOLUME
  virtual bool unlockVolume() = 0;    // FSCTL_UNLOCK_VOLUME
  // A second handle of the same object (closing it leaves this one open).
  virtual std::unique_ptr<Device> duplicate() = 0;
};

class WindowsStorage {
 public:
  virtual ~WindowsStorage() = default;
  // The logical drive roots ("C:\"; fatal "GetLogicalDriveStrings" when
  // the system gives none) and a root's drive type.
  virtual std::vector<std::string> driveRoots() = 0;
  virtual uint32_t driveType(const std::string& root) = 0;
  // Fatal "GetSystemDirectory" when the system gives none.
  virtual std::string systemDirectory() = 0;
  virtual std::string windowsDirectory() = 0;
  // The page files in use ("C:\pagefile.sys").
  virtual std::vector<std::string> pageFiles() = 0;
  // The name of the volume a path lies on; empty when unknown.
  virtual std::string volumeOf(const std::string& path) = 0;
  virtual std::vector<WindowsVolume> volumes() = 0;
  // "\\.\X:" and "\\.\PHYSICALDRIVEn"; write false: for queries only.
  virtual std::unique_ptr<WindowsDevice> openVolume(char letter, bool write) = 0;
  virtual std::unique_ptr<WindowsDevice> openPhysicalDrive(uint32_t number, bool write) = 0;
  virtual bool describeDisk(uint32_t number, DiskDescription& description) = 0;
};

// The drive list of the system over the storage: every root with its type,
// the system directory's drive marked, and the disk's number, size and
// model as its description.
std::unique_ptr<DriveEnumerator> makeWindowsDriveEnumerator(WindowsStorage& storage);

// Whether the drive's volume may be erased together with the physical disk
// it lies on (diskNumber, as the volume answered). When not, reason names
// the drive, the disk number and what else is on the disk.
bool windowsDiskErasable(WindowsStorage& storage, char letter, uint32_t diskNumber, std::string& reason);

// The drive access over the storage: check and hold as the installation
// needs them (the held volume, locked and dismounted before sector 0, the
// held physical drive, and the disk number asked again before each step).
std::unique_ptr<DiskAccess> makeWindowsDiskAccess(WindowsStorage& storage);

// The running system's volumes and disks (Windows only).
WindowsStorage& realWindowsStorage();

}  // namespace tarnlift::localdisk
