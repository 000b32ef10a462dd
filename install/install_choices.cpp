#include "install/install_choices.h"

#include <cstdlib>

#include "net/address.h"

namespace tarnlift::install {

uint32_t addressFromText(const std::string& text) { return net::parseIpv4OrZero(text); }

uint32_t netmaskBitsFromText(const std::string& text) {
  unsigned long value = std::strtoul(text.c_str(), nullptr, 10);
  return value > 32 ? 32 : static_cast<uint32_t>(value);
}

uint32_t baudFromText(const std::string& text) {
  return static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 10));
}

InstallChoices asTheControlsReadThem(InstallChoices shown) {
  if (shown.address == net::kAddressNone) shown.address = 0;
  if (shown.gateway == net::kAddressNone) shown.gateway = 0;
  if (shown.netmaskBits > 32) shown.netmaskBits = 32;
  return shown;
}

void GivenChoices::layOver(InstallChoices& choices) const {
  if (gives(kAddress)) {
    choices.address = values.address;
    choices.netmaskBits = values.netmaskBits;
  }
  if (gives(kGateway)) choices.gateway = values.gateway;
  if (gives(kScript)) {
    choices.scriptEnabled = true;
    choices.scriptPath = values.scriptPath;
  }
  if (gives(kModeScript)) {
    choices.modeScriptEnabled = true;
    choices.modeScriptPath = values.modeScriptPath;
  }
  if (gives(kKeepConfig)) choices.keepConfig = values.keepConfig;
  if (gives(kDefaultConfig)) choices.defaultConfig = values.defaultConfig;
  if (gives(kKeepBranding)) choices.keepBranding = values.keepBranding;
}

}  // namespace tarnlift::install
