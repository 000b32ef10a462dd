// What the headless front end's TARGET names: a drive from the drive list,
// or (Linux) a disk image file, made when missing.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "install/router_record.h"
#include "localdisk/disk_access.h"

namespace tarnlift::localdisk {

struct DiskTarget {
  install::RouterRecord row;        // the drive row to install
  std::unique_ptr<HeldDrive> held;  // checked and opened once, for the installation
  bool isDevice = false;       // a real device: erasing it needs a confirmation
  bool createdFile = false;    // an image file made just now
  uint64_t existingBytes = 0;  // an existing image file's size: when not 0, a confirmation too
};

enum class TargetResult { Ok, BadUsage, Refused };

// Whether TARGET has the form of a target at all (Windows: a drive letter);
// checked before anything else is looked at.
bool diskTargetNameValid(const std::string& target, std::string& error);

// Finds the drive TARGET names, checks it and holds it; a missing image file
// is made with imageMiB mebibytes. On failure error holds one line that
// names the target and the reason.
TargetResult resolveDiskTarget(const std::string& target, uint64_t imageMiB, DiskTarget& result, std::string& error);

bool standardInputIsTerminal();

}  // namespace tarnlift::localdisk
