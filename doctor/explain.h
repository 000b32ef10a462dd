// What `tarnlift doctor` would say about a fatal failure, so that the
// failure names its cause: "bind bootp failed: Address already in use" is
// followed by who holds the port and what to do.
#pragma once

#include <cstdint>
#include <string>

namespace tarnlift::doctor {

// The finding for a fatal text ("bind bootp failed ...", "bind tftp ...");
// empty when the doctor has nothing to add.
std::string explainFailure(const std::string& fatalText);

// The finding for a server that found no interface for its client address:
// the addresses that do exist and what to set. Never empty.
std::string explainNoInterface(uint32_t clientAddress, const std::string& interfaceName);

// Makes every fatal failure of this process end with explainFailure's
// finding (standard error, or the window's box).
void explainFatalFailures();

}  // namespace tarnlift::doctor
