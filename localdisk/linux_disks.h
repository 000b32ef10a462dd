// Linux disks: what a path names (a whole disk, a partition of one, or an
// image file) and whether it is in use. Defined in the Linux half only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarnlift::localdisk {

// The drive type of a /sys/block entry: removable or fixed for disks;
// CD-ROM, RAM disk, network, or unknown for loop, device-mapper, RAID and
// floppy devices.
uint32_t blockDiskType(const std::string& name);

// How a disk of /sys/block is used right now.
struct DiskUse {
  std::vector<std::string> mounts;  // mount points of its partitions
  bool swap = false;
  bool held = false;    // a partition is part of a mapped or RAID device
  bool system = false;  // holds /, /boot or swap
};
DiskUse diskUse(const std::string& name);
inline bool diskHoldsSystem(const std::string& name) { return diskUse(name).system; }

// The whole disk a path stands for: the disk itself, the disk holding a
// partition, or an image file; empty when the path is none of these.
std::string wholeDiskPath(const std::string& path);
// The partition number of a block device path (0 for a whole disk or file).
uint32_t partitionNumberOf(const std::string& path);

// The first line of a small file such as a /sys attribute; empty when it
// cannot be read.
std::string firstLineOf(const std::string& path);

}  // namespace tarnlift::localdisk
