#include "localdisk/linux_disks.h"

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "localdisk/local_drives.h"

namespace tarnlift::localdisk {

namespace {

bool startsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

bool contains(const std::vector<uint64_t>& list, uint64_t value) {
  return value != 0 && std::find(list.begin(), list.end(), value) != list.end();
}

std::string joined(const std::vector<std::string>& names, const std::string& prefix) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + prefix + name;
  return text;
}

}  // namespace

uint32_t blockDiskType(const std::string& name, bool removable) {
  if (startsWith(name, "sr")) return kDriveCdRom;
  if (startsWith(name, "ram") || startsWith(name, "zram")) return kDriveRamDisk;
  if (startsWith(name, "nbd")) return kDriveRemote;
  if (startsWith(name, "loop") || startsWith(name, "dm-") || startsWith(name, "md") || startsWith(name, "fd")) {
    return kDriveUnknown;
  }
  return removable ? kDriveRemovable : kDriveFixed;
}

DiskUse diskUse(LinuxSystem& system, const std::string& disk) {
  DiskUse use;
  DiskMembers members = system.members(disk);
  use.holders = members.holders;
  std::vector<uint64_t> devices = members.devices;
  devices.insert(devices.end(), members.holderDevices.begin(), members.holderDevices.end());
  for (const MountEntry& mount : system.mounts()) {
    if (!contains(devices, mount.device) && !contains(devices, mount.sourceDevice)) continue;
    use.mounts.push_back(mount.mountPoint);
    if (mount.mountPoint == "/" || mount.mountPoint == "/boot" || mount.mountPoint == "/boot/efi") use.system = true;
  }
  for (const SwapEntry& swap : system.swaps()) {
    // A swap partition is the device itself; a swap file lies on one.
    uint64_t device = swap.facts.kind == PathFacts::Block ? swap.facts.rdev : swap.facts.device;
    if (contains(devices, device)) use.swap = true;
  }
  for (const LoopEntry& loop : system.loops()) {
    if (contains(devices, loop.rdevice)) use.loop = loop.name;
  }
  return use;
}

bool checkLinuxTarget(LinuxSystem& system, const std::string& path, LinuxTarget& target, std::string& reason) {
  target = LinuxTarget{};
  target.path = path;
  if (path.empty()) {
    reason = "no drive named";
    return false;
  }
  // Resolved once: a link such as /dev/disk/by-id/... stands for its device
  // from here on.
  target.resolved = system.resolve(path);
  target.facts = target.resolved.empty() ? PathFacts{} : system.facts(target.resolved);
  switch (target.facts.kind) {
    case PathFacts::Missing:
      reason = path + " does not exist";
      return false;
    case PathFacts::Other:
      reason = path + " is neither a disk nor a disk image file";
      return false;
    case PathFacts::Regular:
      return linuxTargetFree(system, target, reason);
    case PathFacts::Block:
      break;
  }
  target.device = true;
  BlockFacts block;
  if (!system.block(target.facts.rdev, block)) {
    reason = path + " is not a disk known to the system";
    return false;
  }
  target.disk = block.disk;
  if (block.partition) {
    reason = path + " is a partition of /dev/" + block.disk + ": a disk is erased whole, so name the whole disk /dev/" +
             block.disk + " instead";
    return false;
  }
  switch (blockDiskType(block.disk, block.removable)) {
    case kDriveCdRom:
      reason = path + " is an optical drive, not a disk";
      return false;
    case kDriveRamDisk:
      reason = path + " is a RAM disk, not a disk";
      return false;
    case kDriveRemote:
      reason = path + " is a network block device, not a local disk";
      return false;
    case kDriveUnknown:
      // Loop devices may be named (images attached on purpose, and tests).
      if (!startsWith(block.disk, "loop")) {
        reason = path + " is a mapped, RAID or floppy device, not a disk";
        return false;
      }
      break;
    default:
      break;
  }
  return linuxTargetFree(system, target, reason);
}

bool linuxTargetFree(LinuxSystem& system, const LinuxTarget& target, std::string& reason) {
  const std::string& path = target.path;
  if (!target.device) {
    for (const LoopEntry& loop : system.loops()) {
      // By device and inode: the name it was attached under may be another
      // link to the same file, or gone.
      if (loop.device == target.facts.device && loop.inode == target.facts.inode) {
        reason = path + " is the backing file of /dev/" + loop.name + ": detach it first (losetup -d /dev/" + loop.name +
                 ")";
        return false;
      }
    }
    for (const SwapEntry& swap : system.swaps()) {
      if (swap.facts.kind == PathFacts::Regular && swap.facts.sameObject(target.facts)) {
        reason = path + " is used for swap";
        return false;
      }
    }
    return true;
  }
  DiskUse use = diskUse(system, target.disk);
  if (use.system) {
    reason = path + " holds the running system";
    return false;
  }
  if (!use.mounts.empty()) {
    reason = path + " has a mounted file system (" + use.mounts.front() + "): unmount it first";
    return false;
  }
  if (use.swap) {
    reason = path + " is used for swap";
    return false;
  }
  if (!use.holders.empty()) {
    reason = path + " is in use by " + joined(use.holders, "/dev/") + " (a mapped, RAID or LVM device)";
    return false;
  }
  if (!use.loop.empty()) {
    reason = path + " is the backing device of /dev/" + use.loop + ": detach it first (losetup -d /dev/" + use.loop + ")";
    return false;
  }
  return true;
}

std::string firstLineOf(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

}  // namespace tarnlift::localdisk
