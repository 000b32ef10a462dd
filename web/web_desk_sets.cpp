// The package sets as the API lists, stores and deletes them.
#include "web/web_desk.h"

#include <filesystem>

#include "app/registry.h"

namespace tarnlift::web {

using nlohmann::json;

namespace {

std::filesystem::path normalFolder(const std::string& folder) {
  std::error_code ec;
  std::filesystem::path path = std::filesystem::absolute(folder, ec).lexically_normal();
  if (!path.has_filename()) path = path.parent_path();  // "/srv/pk/" is "/srv/pk"
  return path;
}

}  // namespace

bool WebDesk::saveSets() {
  if (settings_ == nullptr) return true;
  sets_.saveSets(*settings_);
  return true;
}

json WebDesk::sets() const {
  json list = json::array();
  for (const auto& [name, strings] : sets_.sets()) {
    json files = json::array();
    for (size_t i = 1; i < strings.size(); ++i) files.push_back(strings[i]);
    list.push_back({{"name", name}, {"folder", strings.empty() ? "" : strings.front()}, {"files", files}});
  }
  return list;
}

// The folders a set may name: those beside or under serve's package folder
// (under its parent) and those the console already shows (a router's
// folder, a saved set's). Anything else would let a caller make the
// installer read packages from wherever it likes.
bool WebDesk::folderOffered(const std::string& folder) const {
  std::filesystem::path wanted = normalFolder(folder);
  std::filesystem::path parent = normalFolder(desk_.packageDir()).parent_path();
  std::filesystem::path below = wanted.lexically_relative(parent);
  if (!below.empty() && below != "." && *below.begin() != "..") return true;
  for (const auto& [mac, row] : desk_.table().rows()) {
    if (!row.record.packageDir.empty() && normalFolder(row.record.packageDir) == wanted) return true;
  }
  for (const auto& [name, strings] : sets_.sets()) {
    if (!strings.empty() && normalFolder(strings.front()) == wanted) return true;
  }
  return false;
}

WebResult WebDesk::putSet(const std::string& name, const json& body) {
  if (name.empty() || name.size() > 200) return WebResult::error(400, "name: must be 1 to 200 characters");
  if (!body.is_object() || !body.contains("files") || !body["files"].is_array()) {
    return WebResult::error(400, "files: must be an array");
  }
  packages::PackageChoice choice;
  choice.folder = desk_.packageDir();
  if (body.contains("folder")) {
    if (!body["folder"].is_string() || body["folder"].get<std::string>().empty()) {
      return WebResult::error(400, "folder: must be a folder name");
    }
    choice.folder = body["folder"].get<std::string>();
    if (!folderOffered(choice.folder)) {
      return WebResult::error(400, "folder: " + choice.folder + " is not under " +
                                       normalFolder(desk_.packageDir()).parent_path().string() +
                                       " nor a folder of a router or a set");
    }
  }
  for (const json& f : body["files"]) {
    if (!f.is_string() || f.get<std::string>().empty()) return WebResult::error(400, "files: every entry must be a file name");
    choice.files.push_back(f.get<std::string>());
  }
  if (choice.files.empty()) return WebResult::error(400, packages::kEmptySetMessage);
  sets_.storeSet(name, choice);
  saveSets();
  publishChanges();
  return {200, {{"name", name}, {"folder", choice.folder}, {"files", choice.files}}};
}

WebResult WebDesk::deleteSet(const std::string& name) {
  if (!sets_.deleteSet(name, settings_)) return WebResult::error(404, "no package set named " + name);
  for (const auto& [mac, row] : desk_.table().rows()) {
    install::RouterRow* r = desk_.table().find(mac);
    if (r->record.setName == name) r->record.setName.clear();
  }
  publishChanges();
  return {200, {{"deleted", name}}};
}

}  // namespace tarnlift::web
