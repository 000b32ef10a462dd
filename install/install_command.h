// The Install command: turns the selected router row, the chosen packages
// and the install choices into an install request, checks it, remembers the
// choices for the next router and starts the session. The questions and
// message boxes go through InstallPrompter: the window shows them, the
// headless front end answers from its options and prints the texts.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "install/install_choices.h"
#include "install/router_record.h"
#include "packages/package_catalogue.h"
#include "packages/package_sets.h"

namespace tarnlift::app {
class Registry;
}

namespace tarnlift::install {

inline constexpr const char* kAddressQuestion =
    "No address will be set unless both address and netmask is specified. Proceed?";
inline constexpr const char* kGatewayQuestion = "No gateway will be set if address is invalid. Proceed?";
inline constexpr const char* kNoPackagesText = "No packages selected";
inline constexpr const char* kNoSpaceText = "Not enough space on device";
inline constexpr const char* kNoScriptText = "Could not read configuration script";

class InstallPrompter {
 public:
  virtual ~InstallPrompter() = default;
  // A message box with only an OK button. errorIcon: the error icon
  // (otherwise the warning icon).
  virtual void showMessage(const std::string& text, const std::string& title, bool errorIcon) = 0;
  // A Yes/No question titled "Warning"; true for Yes.
  virtual bool askYesNo(const std::string& text) = 0;
};

// The choices of the last Install command, applied to every router found
// afterwards, and persisted as the "Previous ..." settings. Its keepBranding
// is never read, saved or applied: each router starts with its own.
struct RememberedChoices : InstallChoices {
  void load(app::Registry& settings);
  void save(app::Registry& settings) const;
  // A newly discovered router starts from these. Apply default config is on
  // for a router that has a default configuration and off for one that has
  // none (hasDefaultConfiguration), whatever was remembered.
  void applyTo(RouterRecord& record) const;
  // A drive whose installation was cancelled starts over with the
  // remembered baud rate, default configuration and both scripts (its
  // package choice comes from "Previous Install", as for a new drive).
  void applyToCancelledDrive(RouterRecord& record) const;
};

enum class InstallOutcome {
  NoSelection,  // nothing selected: nothing happens
  Refused,      // a message was shown (or a question answered No)
  Started,      // the request went to startSession
};

struct InstallContext {
  packages::PackageCatalogue& catalogue;
  packages::PackageChoice& choice;  // the row's set name, folder and files
  packages::PackageSets& sets;
  RememberedChoices& remembered;
  InstallPrompter& prompter;
  // Starts the session (network) or the local installation (drive).
  std::function<void(const RouterRecord& request)> startSession;
};

// Runs the Install command for record (the selected row, or null) with the
// choices the front end shows for it. The record is filled with the
// choices, the order of files and the total size.
InstallOutcome runInstallCommand(RouterRecord* record, const InstallChoices& choices, InstallContext& context);

}  // namespace tarnlift::install
