#include "app/settings_file.h"
#include "app/settings_store.h"

namespace tarnlift::app {

std::shared_ptr<SettingsStore> platformSettingsStore() { return makeFileSettingsStore(defaultSettingsFilePath()); }

}  // namespace tarnlift::app
