// One router's install choices: what the Install command sends with the
// packages (the offer's lines, the generated autorun script, the scripts).
// A router row holds them (RouterRecord), the remembered defaults are the
// last ones used (RememberedChoices), an inventory section gives some of
// them (GivenChoices) and the web API reads and changes them. Each front end
// turns its text into these once, where the text comes in: the dialog's
// controls (the readings below), the command line, the inventory file, a
// JSON body. Inside the core they stay typed.
#pragma once

#include <cstdint>
#include <string>

namespace tarnlift::install {

struct InstallChoices {
  bool keepConfig = false;
  uint32_t address = 0;  // network order, 0 none
  uint32_t netmaskBits = 0;
  uint32_t gateway = 0;  // network order, 0 none
  bool keepBranding = true;
  uint32_t baudRate = 0;  // 0: the router's own
  bool defaultConfig = false;
  bool scriptEnabled = false;
  std::string scriptPath;
  bool modeScriptEnabled = false;
  std::string modeScriptPath;

  bool operator==(const InstallChoices&) const = default;
};

// How the option controls read their text (the window's fields and baud
// list; the command line reads --address, --gateway and --baud alike).
// The address fields: inet_addr's reading; its all-ones answer (unparsable
// text, or 255.255.255.255) gives 0.
uint32_t addressFromText(const std::string& text);
// The netmask-bits field: decimal, above 32 gives 32, unparsable 0.
uint32_t netmaskBitsFromText(const std::string& text);
// The baud list: the selected text read as an unsigned decimal, 0 for "don't set".
uint32_t baudFromText(const std::string& text);

// The choices as the option controls hand them back after showing them:
// the all-ones address (inet_addr's error answer) reads as none and a
// netmask above 32 as 32. The window's values pass through its fields; the
// web console and the inventory, which lay values over a row without
// fields, give the same answer by this.
InstallChoices asTheControlsReadThem(InstallChoices shown);

// Some of the choices, given by a source that leaves the others as they
// are: an inventory section. `keys` says which; the values are in `values`.
struct GivenChoices {
  enum Key : unsigned {
    kAddress = 1u << 0,     // address and netmask bits
    kGateway = 1u << 1,
    kScript = 1u << 2,      // the configure script on, with its file
    kModeScript = 1u << 3,  // the mode script on, with its file
    kKeepConfig = 1u << 4,
    kDefaultConfig = 1u << 5,
    kKeepBranding = 1u << 6,
  };
  InstallChoices values;
  unsigned keys = 0;

  bool gives(Key key) const { return (keys & key) != 0; }
  // Lays the given values over `choices`; what is not given stays.
  void layOver(InstallChoices& choices) const;
};

}  // namespace tarnlift::install
