// The --json output of the commands: one document per run, on standard
// output. Texts that come from files or from the network may hold bytes that
// are not UTF-8; they become U+FFFD instead of ending the program. The
// document is plain ASCII: control characters and everything beyond ASCII
// are written as \uXXXX escapes, so that no console code page or pipe
// decoding (a Windows script reads standard output in the console's code
// page) can change a name on its way to the reader.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace tarnlift::cli {

inline std::string jsonText(const nlohmann::json& value) {
  return value.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

}  // namespace tarnlift::cli
