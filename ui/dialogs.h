// The main window's modal dialogs, each opened over an owner window (the
// native handle, passed as void* so that this header stays neutral).
#pragma once

#include <cstdint>
#include <string>

namespace tarnlift {

// The text of a window or control (a native handle), as the dialogs and the
// main window read their edit boxes and labels.
std::string windowText(void* window);

// "Help" (dialog 106): the fixed help text and a "Close" button. Returns 0.
int showHelpDialog(void* owner);

// "Save set" (dialog 102): the edit box starts with name. True with the
// typed name on OK; false on Cancel, Esc or the close box.
bool askSetNameDialog(void* owner, std::string& name);

// "Network Booting Settings" (dialog 107), run by the network booting
// presenter. True with the new values when accepted.
bool showNetbootDialog(void* owner, bool& enabled, uint32_t& clientAddress);

}  // namespace tarnlift
