// What a service manager (systemd on Linux) wants to hear from a server it
// runs: that it is ready, that it is stopping, and which log lines are
// failures. Nothing here does anything when no service manager is present,
// so the same program runs from a terminal unchanged.
#pragma once

#include <string>

namespace tarnlift::app {

// Sends `state` ("READY=1", "STOPPING=1", ...) to the datagram socket named
// by $NOTIFY_SOCKET (a path, or "@name" for an abstract socket). Quietly
// nothing without it, and nothing on Windows.
void notifyServiceManager(const std::string& state);

// Whether standard error is the journal's stream ($JOURNAL_STREAM names the
// device and inode of the stream it handed over); then each line may carry a
// "<N>" syslog priority in front. False on Windows.
bool standardErrorIsJournal();

}  // namespace tarnlift::app
