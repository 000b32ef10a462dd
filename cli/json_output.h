// The --json output of the commands: one document per run, on standard
// output. Texts that come from files or from the network may hold bytes that
// are not UTF-8; they become U+FFFD instead of ending the program.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace tarnlift::cli {

inline std::string jsonText(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace tarnlift::cli
