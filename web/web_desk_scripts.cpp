// Scripts given as text: stored in the process's private folder, one file
// per router and kind, and their sizes as the API shows them.
#include "web/web_desk.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace tarnlift::web {

using nlohmann::json;

uint64_t WebDesk::scriptSize(const std::map<net::MacAddress, std::string>& texts, const net::MacAddress& mac,
                             const std::string& path) const {
  auto text = texts.find(mac);
  if (text != texts.end()) return text->second.size();
  std::error_code ec;
  uint64_t size = path.empty() ? 0 : static_cast<uint64_t>(std::filesystem::file_size(path, ec));
  return ec ? 0 : size;
}

bool WebDesk::writeScript(const net::MacAddress& mac, const char* name, const std::string& text, std::string& path) {
  if (scriptFolder_.empty()) return false;
  std::string hex = install::macText(mac);
  hex.erase(std::remove(hex.begin(), hex.end(), ':'), hex.end());
  path = scriptFolder_ + "/" + hex + "-" + name;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  return static_cast<bool>(out);
}

}  // namespace tarnlift::web
