// Windows job objects for the children that write on a disk (the formatter,
// the boot loader's installer): a child started inside a job is ended
// together with everything it started, and waited for, so that nothing is
// left writing on the drive. Linux gets the same from a process group of the
// child's own (posix_spawn's POSIX_SPAWN_SETPGROUP, ended with kill(-pid)).
// Handles are passed as void* so that this header stays free of <windows.h>;
// only the Windows build defines these.
#pragma once

#include <cstdint>

namespace tarnlift::app::processjob {

// A new job; killOnClose: its processes end when the last handle of the job
// is closed (also when this process ends). Null when none can be made.
void* create(bool killOnClose);
// Puts a child that was created suspended into the job and lets it run.
// Without a job (or when the job refuses it) the child runs all the same.
void adoptAndResume(void* job, void* process, void* thread);
// Ends every process of the job (the process alone when there is no job)
// and waits up to waitMs for the process to be gone. False when it could
// not be ended.
bool endAll(void* job, void* process, uint32_t waitMs);
void close(void* job);

}  // namespace tarnlift::app::processjob
