// Linux disks: what a path names (a whole disk, a partition of one, or an
// image file) and whether it may be erased. The facts come from the system
// (stat, /sys, /proc) through a small interface, so that the rules are
// tested with made-up machines on every platform; the Linux half supplies
// the real machine.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tarnlift::localdisk {

class HeldDrive;

// What stat says of a path (links followed). Device numbers are compared
// as the system encodes them.
struct PathFacts {
  enum Kind { Missing, Block, Regular, Other };
  Kind kind = Missing;
  uint64_t device = 0;  // st_dev: the file system holding it
  uint64_t inode = 0;   // st_ino
  uint64_t rdev = 0;    // st_rdev: a block device's own number
  uint64_t size = 0;    // bytes of a regular file
  // The same object: same file on the same file system, same device.
  bool sameObject(const PathFacts& other) const {
    return kind == other.kind && device == other.device && inode == other.inode && rdev == other.rdev;
  }
};

// A block device as /sys/dev/block/MAJ:MIN describes it.
struct BlockFacts {
  std::string name;        // "sdb1"
  std::string disk;        // the whole disk it belongs to ("sdb"; itself for a disk)
  bool partition = false;
  bool removable = false;  // of the disk
  uint64_t bytes = 0;      // size of the disk
  std::string model;       // vendor and model of the disk, as far as known
};

// The devices of a whole disk and what is built on them.
struct DiskMembers {
  std::vector<uint64_t> devices;     // the disk and its partitions
  std::vector<std::string> holders;  // devices built on them (dm-0, md0), and on those
  std::vector<uint64_t> holderDevices;
};

struct MountEntry {
  uint64_t device = 0;        // the mounted file system's device (mountinfo)
  uint64_t sourceDevice = 0;  // the block device its source names, 0 if none
  std::string mountPoint;
};

struct SwapEntry {
  std::string path;
  PathFacts facts;
};

// A loop device and what backs it (the device and inode of its backing
// file, or the number of a backing block device).
struct LoopEntry {
  std::string name;  // "loop3"
  std::string backingFile;
  uint64_t device = 0;
  uint64_t inode = 0;
  uint64_t rdevice = 0;
};

class LinuxSystem {
 public:
  virtual ~LinuxSystem() = default;
  virtual PathFacts facts(const std::string& path) = 0;
  // The path with every link resolved; empty when it cannot be resolved.
  virtual std::string resolve(const std::string& path) = 0;
  // False when the system knows no block device of that number.
  virtual bool block(uint64_t rdev, BlockFacts& facts) = 0;
  virtual DiskMembers members(const std::string& disk) = 0;
  virtual std::vector<MountEntry> mounts() = 0;
  virtual std::vector<SwapEntry> swaps() = 0;
  virtual std::vector<LoopEntry> loops() = 0;
  // The entries of /sys/block, in name order.
  virtual std::vector<std::string> disks() = 0;
  // The same for an entry of /sys/block by its name.
  virtual bool blockByName(const std::string& name, BlockFacts& facts) = 0;
};

// The running machine (Linux only).
LinuxSystem& realLinuxSystem();

// The drive type of a /sys/block entry: removable or fixed for disks;
// CD-ROM, RAM disk, network, or unknown for loop, device-mapper, RAID and
// floppy devices.
uint32_t blockDiskType(const std::string& name, bool removable);

// How a whole disk is used right now.
struct DiskUse {
  std::vector<std::string> mounts;   // mount points of it, its partitions and what is built on them
  bool swap = false;
  std::vector<std::string> holders;  // devices built on it (dm-0, md0)
  bool system = false;               // holds /, /boot or /boot/efi
  bool holdsSystem() const { return system || swap; }  // left out of the drive list
  std::string loop;                  // a loop device it backs ("loop3"), empty if none
};
DiskUse diskUse(LinuxSystem& system, const std::string& disk);

// A target named by the user, resolved once and checked.
struct LinuxTarget {
  std::string path;      // as named
  std::string resolved;  // every link resolved
  PathFacts facts;       // of what was checked
  bool device = false;   // a block device (else an image file)
  std::string disk;      // a device's name in /sys/block
};

// Whether the path may be erased: a whole disk that nothing uses, or an
// image file that backs no loop device and is no swap file. When not,
// reason says why in one line that names the path (a partition names the
// whole disk to use instead).
bool checkLinuxTarget(LinuxSystem& system, const std::string& path, LinuxTarget& target, std::string& reason);
// The same rules for what is in use, for a target already resolved (before
// each step of an installation).
bool linuxTargetFree(LinuxSystem& system, const LinuxTarget& target, std::string& reason);

// Checks the target and opens it once for the whole installation (Linux
// only): exclusively for a device, never through a link put in the checked
// name's place. Null, with the reason, when refused or not openable.
std::unique_ptr<HeldDrive> holdLinuxTarget(LinuxSystem& system, const std::string& path, LinuxTarget& target,
                                           std::string& reason);

// The first line of a small file such as a /sys attribute; empty when it
// cannot be read.
std::string firstLineOf(const std::string& path);

}  // namespace tarnlift::localdisk
