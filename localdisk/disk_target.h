// What the headless front end's TARGET names: a drive from the drive list,
// or (Linux) a disk image file, made when missing.
#pragma once

#include <cstdint>
#include <string>

#include "install/router_record.h"

namespace tarnlift::localdisk {

struct DiskTarget {
  RouterRecord row;         // the drive row to install
  bool isDevice = false;    // a real device: erasing it needs a confirmation
  bool createdFile = false; // an image file made just now
};

enum class TargetResult { Ok, BadUsage, Refused };

// Whether TARGET has the form of a target at all (Windows: a drive letter);
// checked before anything else is looked at.
bool diskTargetNameValid(const std::string& target, std::string& error);

// Finds the drive TARGET names; a missing image file is made with
// imageMiB mebibytes. On failure error holds one line.
TargetResult resolveDiskTarget(const std::string& target, uint64_t imageMiB, DiskTarget& result, std::string& error);

bool standardInputIsTerminal();

}  // namespace tarnlift::localdisk
