// Reporting failed system calls: the message, the system's own text for the
// error and its number; a fatal failure shows it in an "Error" box and ends
// the process with exit code 1.
#pragma once

#include <cstdint>
#include <string>

namespace tarnlift::app {

// Appends ": <system text> (<code>)" to message and logs it. A code of 0
// takes the calling thread's last system error. When fatal, shows the
// message in the "Error" box and ends the process with exit code 1.
void reportFailure(std::string& message, uint32_t code, bool fatal);

// As reportFailure, with the socket library's last error as the code.
void reportSocketFailure(std::string& message, bool fatal);

// Shorthand for the usual fatal case with the thread's last error.
[[noreturn]] void fatalFailure(std::string message, uint32_t code = 0);

// The calling thread's last system error, and the system's text for a code
// (empty when the system knows none).
uint32_t lastSystemError();
void setLastSystemError(uint32_t code);
uint32_t lastSocketError();
std::string systemErrorText(uint32_t code);

// Shows the fatal box. The default shows a message box titled "Error" on
// Windows and writes the text to standard error elsewhere. Tests replace it.
using FatalPresenter = void (*)(const std::string& text);
void setFatalPresenter(FatalPresenter presenter);

// Adds to a fatal failure's text what is known of its cause (a finding of
// the doctor): the text is shown followed by a line with the finding. The
// log line keeps the text alone. Null (the default): nothing is added.
using FailureExplainer = std::string (*)(const std::string& text);
void setFailureExplainer(FailureExplainer explainer);

// Platform halves.
void showFatalBox(const std::string& text);
[[noreturn]] void exitProcessNow(int code);

}  // namespace tarnlift::app
