// The fixed text of the help dialog: lines joined by CR LF, starting with an
// empty line.
#pragma once

namespace tarnlift {

extern const char* const kHelpText;

}  // namespace tarnlift
