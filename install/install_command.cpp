#include "install/install_command.h"

#include <cstdio>

#include "app/registry.h"
#include "packages/version.h"

namespace tarnlift::install {

void RememberedChoices::load(app::Registry& settings) {
  keepConfig = settings.readBool("Previous KeepConfig", false);
  address = settings.readInt("Previous Address", 0);
  netmaskBits = settings.readInt("Previous Netmask", 0);
  gateway = settings.readInt("Previous Gateway", 0);
  baudRate = settings.readInt("Previous Baud", 0);
  defaultConfig = settings.readBool("Previous Default Config", false);
  scriptEnabled = settings.readBool("Previous Script", false);
  scriptPath = settings.readString("Previous ScriptFile", "");
  modeScriptEnabled = settings.readBool("Previous ModeScript", false);
  modeScriptPath = settings.readString("Previous ModeScriptFile", "");
}

void RememberedChoices::save(app::Registry& settings) const {
  settings.writeBool("Previous KeepConfig", keepConfig);
  settings.writeInt("Previous Address", address);
  settings.writeInt("Previous NetMask", netmaskBits);
  settings.writeInt("Previous Gateway", gateway);
  settings.writeInt("Previous Baud", baudRate);
  settings.writeBool("Previous Default Config", defaultConfig);
  settings.writeBool("Previous Script", scriptEnabled);
  settings.writeString("Previous ScriptFile", scriptPath);
  settings.writeBool("Previous ModeScript", modeScriptEnabled);
  settings.writeString("Previous ModeScriptFile", modeScriptPath);
}

void RememberedChoices::applyTo(RouterRecord& record) const {
  record.keepConfig = keepConfig;
  record.address = address;
  record.netmaskBits = netmaskBits;
  record.gateway = gateway;
  record.baudRate = baudRate;
  // A router with a default configuration starts with it applied, whatever
  // was remembered; one without has none to apply.
  record.defaultConfig = hasDefaultConfiguration(record);
  record.scriptEnabled = scriptEnabled;
  record.scriptPath = scriptPath;
  record.modeScriptEnabled = modeScriptEnabled;
  record.modeScriptPath = modeScriptPath;
}

void RememberedChoices::applyToCancelledDrive(RouterRecord& record) const {
  record.baudRate = baudRate;
  record.defaultConfig = defaultConfig;
  record.scriptEnabled = scriptEnabled;
  record.scriptPath = scriptPath;
  record.modeScriptEnabled = modeScriptEnabled;
  record.modeScriptPath = modeScriptPath;
}

namespace {
bool fileReadable(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  std::fclose(file);
  return true;
}
}  // namespace

InstallOutcome runInstallCommand(RouterRecord* record, const InstallChoices& choices, InstallContext& context) {
  if (record == nullptr) return InstallOutcome::NoSelection;
  InstallPrompter& prompter = context.prompter;
  if (choices.scriptEnabled && !fileReadable(choices.scriptPath)) {
    prompter.showMessage(kNoScriptText, "Error", true);
    return InstallOutcome::Refused;
  }
  if (record->version != 0 && record->version < record->minVersion) {
    prompter.showMessage("tarnlift version " + packages::formatVersion(record->version) +
                             " is too old\nboard supports versions from " + packages::formatVersion(record->minVersion),
                         "Error", true);
    return InstallOutcome::Refused;
  }
  for (const std::string& file : context.choice.files) {
    if (!context.catalogue.isVersionAtLeast(file, record->minVersion)) {
      prompter.showMessage("board supports versions from " + packages::formatVersion(record->minVersion), "Error",
                           true);
      return InstallOutcome::Refused;
    }
  }
  if (context.choice.files.empty()) {
    prompter.showMessage(kNoPackagesText, "Cannot install", true);
    return InstallOutcome::Refused;
  }
  RememberedChoices& remembered = context.remembered;
  if (record->kind == kKindRouter) {
    record->address = choices.address;
    record->netmaskBits = choices.netmaskBits;
    record->gateway = choices.gateway;
    bool haveAddress = record->address != 0;
    bool haveMask = record->netmaskBits != 0;
    if (haveAddress != haveMask && !prompter.askYesNo(kAddressQuestion)) return InstallOutcome::Refused;
    if (record->gateway != 0 && (!haveAddress || !haveMask) && !prompter.askYesNo(kGatewayQuestion)) {
      return InstallOutcome::Refused;
    }
    record->keepConfig = choices.keepConfig;
    record->defaultConfig = choices.defaultConfig;
    record->keepBranding = choices.keepBranding;
    record->scriptEnabled = choices.scriptEnabled;
    record->scriptPath = choices.scriptPath;
    record->modeScriptEnabled = choices.modeScriptEnabled;
    record->modeScriptPath = choices.modeScriptPath;
    remembered.keepConfig = record->keepConfig;
    remembered.address = record->address;
    remembered.netmaskBits = record->netmaskBits;
    remembered.gateway = record->gateway;
    if (hasDefaultConfiguration(*record)) remembered.defaultConfig = record->defaultConfig;
    remembered.scriptEnabled = record->scriptEnabled;
    remembered.scriptPath = record->scriptPath;
    remembered.modeScriptEnabled = record->modeScriptEnabled;
    remembered.modeScriptPath = record->modeScriptPath;
  }
  record->baudRate = choices.baudRate;
  remembered.baudRate = record->baudRate;
  context.sets.rememberPreviousInstall(context.choice);

  uint64_t total = 0;
  for (const std::string& file : context.choice.files) total += context.catalogue.fileSizeOf(file);
  record->totalSize = static_cast<uint32_t>(total);
  if (record->storageSize != 0 && record->storageSize < record->totalSize && !record->spaceWarned) {
    // Once per record on purpose: pressing Install again goes ahead.
    record->spaceWarned = true;
    prompter.showMessage(kNoSpaceText, "Warning", false);
    return InstallOutcome::Refused;
  }
  record->setName = context.choice.setName;
  record->packageDir = context.catalogue.folder();
  // The order walks the ticked rows: show this router's choice first.
  context.catalogue.applySelection(context.choice.files);
  record->files = context.catalogue.installOrder(context.choice.files);
  if (context.startSession) context.startSession(*record);
  return InstallOutcome::Started;
}

}  // namespace tarnlift::install
