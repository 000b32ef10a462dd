#include "install/router_record.h"

namespace tarnlift::install {
namespace {
struct ArchitectureName {
  const char* announced;
  const char* column;
};
const ArchitectureName kArchitectures[] = {
    {"i386", ""},   {"mipsel", "mipsle"}, {"powerpc", "ppc"}, {"mips", "mipsbe"}, {"tile", "tile"},
    {"arm", "arm"}, {"arm64", "arm64"},   {"smips", "smips"}, {"mmips", "mmips"},
};
}  // namespace

uint32_t architectureFromText(const std::string& text) {
  for (uint32_t i = 0; i < 9; ++i) {
    if (text == kArchitectures[i].announced) return i + 1;
  }
  return 0;
}

const char* architectureText(uint32_t code) { return code >= 1 && code <= 9 ? kArchitectures[code - 1].announced : ""; }

const char* architectureColumnText(uint32_t code) {
  return code >= 1 && code <= 9 ? kArchitectures[code - 1].column : "";
}

const char* statusRowText(uint32_t status) {
  switch (status) {
    case kStatusReady:
      return "Ready";
    case kStatusDone:
      return "Done";
    case kStatusFailed:
      return "Failed";
    case kStatusInstalling:
      return "Installing";
    case kStatusWaitingReboot:
      return "Waiting reboot";
    default:
      return "";
  }
}

}  // namespace tarnlift::install
