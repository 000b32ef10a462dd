// Replacing a file so that a crash or a full disk leaves either the old or
// the new contents, never a mixture.
#pragma once

#include <cstdint>
#include <string>

namespace tarnlift::app {

// Writes bytes to a temporary file beside path, flushes it to the disk and
// renames it over path. Returns 0 or the system error code; on failure the
// previous file is untouched.
// The temporary file that replaceFileAtomically writes first.
std::string temporaryPathFor(const std::string& path);

uint32_t replaceFileAtomically(const std::string& path, const std::string& bytes);

// Deletes the temporary files that writers of path left behind when they
// died in the middle of a replacement (their process no longer exists).
// Returns how many were deleted.
int removeStaleTemporaries(const std::string& path);

// Platform half: whether the process with this id still runs.
bool processExists(uint32_t processId);

}  // namespace tarnlift::app
