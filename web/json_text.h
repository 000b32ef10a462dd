// The front ends' one way to turn a JSON value into text.
//
// Texts that come from files or from the network (a router's label, a
// package's name) may hold bytes that are not UTF-8; they become U+FFFD
// instead of throwing. The API and the event stream send UTF-8, as a browser
// expects. The command line's --json documents are plain ASCII instead:
// control characters and everything beyond ASCII are written as \uXXXX
// escapes, so that no console code page or pipe decoding (a Windows script
// reads standard output in the console's code page) can change a name on its
// way to the reader.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace tarnlift::web {

enum class JsonCharacters { Utf8, AsciiEscapes };

inline std::string jsonText(const nlohmann::json& value, JsonCharacters characters = JsonCharacters::Utf8) {
  return value.dump(-1, ' ', characters == JsonCharacters::AsciiEscapes, nlohmann::json::error_handler_t::replace);
}

}  // namespace tarnlift::web
