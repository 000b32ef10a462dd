// One row of the "Routers/Drives" list and, once filled with the install
// choices, one install request. Records are copied whole between holders.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "install/install_choices.h"
#include "install/install_datagram.h"

namespace tarnlift::install {

enum RouterStatus : uint32_t {
  kStatusNone = 0,
  kStatusReady = 1,
  kStatusDone = 2,
  kStatusFailed = 3,
  kStatusInstalling = 4,
  kStatusWaitingReboot = 5,
};

enum RecordKind : uint8_t { kKindDrive = 0, kKindRouter = 1 };

// The row's install choices (its base) and what the router is and does.
struct RouterRecord : InstallChoices {
  uint8_t kind = kKindRouter;
  uint32_t architecture = 0;
  std::string label;
  MacAddress mac{};
  uint32_t minVersion = 0;
  uint32_t version = 0;
  bool hasBranding = false;
  bool unprotected = true;  // false: the router reported its branding "protected"
  uint32_t storageSize = 0;
  bool spaceWarned = false;
  uint32_t driveType = 0;
  std::string driveDescription;  // a drive's disk: number, size, model ("" unknown)
  std::string driveSize;         // its size alone, for the row ("" unknown)
  std::string setName;
  std::string packageDir;
  std::vector<std::string> files;
  int64_t lastSeen = 0;  // µs of the monotonic clock
  uint32_t status = kStatusReady;
  uint32_t totalSize = 0;
  uint32_t progress = 0;
  std::string statusText;

  // progress against totalSize, 0 to 100 (0 while the size is not known).
  uint32_t percentDone() const {
    if (totalSize == 0) return 0;
    uint64_t percent = static_cast<uint64_t>(progress) * 100 / totalSize;
    return static_cast<uint32_t>(percent > 100 ? 100 : percent);
  }
};

// Whether the router has a default configuration that "Apply default config"
// can apply: one whose branding is protected (its branding brings the
// configuration). The one meaning, for the option's check box and for the
// remembered choice: a router without one never has the option on.
inline bool hasDefaultConfiguration(const RouterRecord& record) {
  return record.kind == kKindRouter && !record.unprotected;
}

// Architecture code for the announced text (exact match); 0 when unknown.
uint32_t architectureFromText(const std::string& text);
// The announced text for a code ("" outside 1..9).
const char* architectureText(uint32_t code);
// The "Architecture" column text: blank for i386 on purpose.
const char* architectureColumnText(uint32_t code);
// The row text of a status value ("" for 0 and unknown values).
const char* statusRowText(uint32_t status);

}  // namespace tarnlift::install
