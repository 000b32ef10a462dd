// Linux: the sockets of /proc/net/udp, their owners found by matching the
// socket's inode against every process's open files.
#include <dirent.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>

#include "doctor/udp_ports.h"

namespace tarnlift::doctor {
namespace {

std::string readWhole(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool allDigits(const char* name) {
  if (*name == '\0') return false;
  for (const char* c = name; *c != '\0'; ++c) {
    if (*c < '0' || *c > '9') return false;
  }
  return true;
}

// inode -> every process holding it, for the inodes asked for.
std::map<uint64_t, std::vector<PortHolder>> socketHolders(const std::map<uint64_t, bool>& wanted) {
  std::map<uint64_t, std::vector<PortHolder>> result;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return result;
  while (dirent* entry = readdir(proc)) {
    if (!allDigits(entry->d_name)) continue;
    std::string base = std::string("/proc/") + entry->d_name;
    DIR* fds = opendir((base + "/fd").c_str());
    if (fds == nullptr) continue;
    std::string program;
    while (dirent* fd = readdir(fds)) {
      if (!allDigits(fd->d_name)) continue;
      char target[64] = {};
      ssize_t n = readlink((base + "/fd/" + fd->d_name).c_str(), target, sizeof target - 1);
      if (n <= 0) continue;
      std::string link(target, static_cast<size_t>(n));
      if (link.rfind("socket:[", 0) != 0) continue;
      uint64_t inode = 0;
      try {
        inode = std::stoull(link.substr(8));
      } catch (...) {
        continue;
      }
      if (wanted.count(inode) == 0) continue;
      if (program.empty()) {
        program = readWhole(base + "/comm");
        while (!program.empty() && (program.back() == '\n' || program.back() == '\r')) program.pop_back();
      }
      std::vector<PortHolder>& holders = result[inode];
      uint32_t pid = static_cast<uint32_t>(std::stoul(entry->d_name));
      bool known = false;
      for (const PortHolder& h : holders) known = known || h.pid == pid;
      if (!known) holders.push_back({pid, program});
    }
    closedir(fds);
  }
  closedir(proc);
  return result;
}

}  // namespace

bool udpBindings(uint16_t port, std::vector<UdpBinding>& bindings, std::string& why) {
  bindings.clear();
  std::ifstream in("/proc/net/udp");
  if (!in) {
    why = "cannot read /proc/net/udp";
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  std::map<uint64_t, bool> wanted;
  std::vector<ProcUdpLine> lines;
  for (const ProcUdpLine& l : parseProcNetUdp(text.str())) {
    if (l.port != port) continue;
    lines.push_back(l);
    wanted[l.inode] = true;
  }
  std::map<uint64_t, std::vector<PortHolder>> holders = socketHolders(wanted);
  for (const ProcUdpLine& l : lines) {
    UdpBinding b;
    b.address = l.address;
    b.port = l.port;
    if (auto it = holders.find(l.inode); it != holders.end()) b.holders = it->second;
    bindings.push_back(b);
  }
  return true;
}

}  // namespace tarnlift::doctor
