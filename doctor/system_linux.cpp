#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "doctor/system.h"

namespace tarnlift::doctor {
namespace {

bool readLine(const std::string& path, std::string& value) {
  std::ifstream in(path);
  if (!in) return false;
  std::getline(in, value);
  return true;
}

bool executable(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && access(path.c_str(), X_OK) == 0;
}

}  // namespace

LinkState linkState(const std::string& interfaceName) {
  LinkState state;
  std::string base = "/sys/class/net/" + interfaceName;
  std::string flags;
  if (!readLine(base + "/flags", flags)) {
    state.why = "cannot read " + base;
    return state;
  }
  try {
    state.up = (std::stoul(flags, nullptr, 16) & 0x1) != 0;  // IFF_UP
  } catch (...) {
    state.why = "cannot read " + base + "/flags";
    return state;
  }
  std::string carrier;
  // The carrier file cannot be read while the interface is down.
  state.carrier = state.up && readLine(base + "/carrier", carrier) && carrier == "1";
  state.known = true;
  return state;
}

std::string findProgram(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
  // Programs of the system's administrator live in sbin, which a user's
  // PATH often lacks; the disk road runs them from there too.
  dirs += ":/usr/local/sbin:/usr/sbin:/sbin";
  std::istringstream in(dirs);
  std::string dir;
  while (std::getline(in, dir, ':')) {
    if (dir.empty()) continue;
    std::string candidate = dir + "/" + name;
    if (executable(candidate)) return candidate;
  }
  return "";
}

std::vector<NeededProgram> diskRoadPrograms() {
  return {{"mkfs.fat", "install the dosfstools package (only disk installations need it)"},
          {"mcopy", "install the mtools package (only disk installations need it)"}};
}

bool readFirewallRules(std::string& rules, std::string& why) {
  std::string nft = findProgram("nft");
  if (nft.empty()) {
    why = "nft is not installed, so the nftables rules cannot be read";
    return false;
  }
  std::string command = nft + " -j list ruleset 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    why = "cannot run nft";
    return false;
  }
  rules.clear();
  std::array<char, 4096> chunk{};
  size_t n;
  while ((n = std::fread(chunk.data(), 1, chunk.size(), pipe)) > 0) rules.append(chunk.data(), n);
  int status = pclose(pipe);
  if (status != 0) {
    std::string first = rules.substr(0, rules.find('\n'));
    why = "nft cannot list the ruleset" + (first.empty() ? std::string() : ": " + first);
    return false;
  }
  return true;
}

bool readFirewallProfiles(FirewallProfiles&, std::string& why) {
  why = "Linux has no firewall profiles";
  return false;
}

}  // namespace tarnlift::doctor
