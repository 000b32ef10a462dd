// The guard that keeps a second copy of the program from running.
#pragma once

#include <string>

namespace tarnlift::app {

inline constexpr const char* kSingleInstanceName = "SingleNetservInstanceMutex";
inline constexpr const char* kAlreadyRunningText = "QL Router Install Server is already running";

enum class InstanceGuard { Acquired, AlreadyRunning };

// Takes the process-wide guard of the given name for the rest of the
// process's life. A failure to create it is fatal ("CreateMutex() failed").
InstanceGuard acquireSingleInstance(const std::string& name = kSingleInstanceName);

}  // namespace tarnlift::app
