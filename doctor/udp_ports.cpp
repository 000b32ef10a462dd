#include "doctor/udp_ports.h"

#include <sstream>

namespace tarnlift::doctor {

std::vector<UdpBinding> bindingsInTheWay(const std::vector<UdpBinding>& bindings, uint32_t address) {
  std::vector<UdpBinding> result;
  for (const UdpBinding& b : bindings) {
    if (b.address == 0 || address == 0 || b.address == address) result.push_back(b);
  }
  return result;
}

std::string holdersText(const UdpBinding& binding) {
  if (binding.holders.empty()) return "an unknown program";
  std::string text;
  for (const PortHolder& h : binding.holders) {
    if (!text.empty()) text += ", ";
    if (!h.program.empty() && h.pid != 0) {
      text += h.program + " (PID " + std::to_string(h.pid) + ")";
    } else if (h.pid != 0) {
      text += "PID " + std::to_string(h.pid);
    } else {
      text += "an unknown program";
    }
  }
  return text;
}

std::string stopAdvice(const UdpBinding& binding, uint16_t port) {
  std::string name;
  uint32_t pid = 0;
  for (const PortHolder& h : binding.holders) {
    if (h.pid != 0) {
      name = h.program;
      pid = h.pid;
      break;
    }
  }
  std::string what = name.empty() ? std::string("the program") : name;
  std::string advice = "stop " + what;
  if (name == "tarnlift" || name == "tarnlift.exe" || name == "tarnlift-cli.exe") {
    return "another Tarnlift server runs here; stop it (PID " + std::to_string(pid) +
           ") or give each server its own interface with --interface";
  }
  if (pid != 0) advice += " (PID " + std::to_string(pid) + ")";
  if (name == "dnsmasq" || name == "libvirtd") {
    advice += ", or keep it off this interface (dnsmasq: --except-interface=NAME, or bind-interfaces with its own "
              "interface list)";
  } else if (port == 69) {
    advice += ", or disable that TFTP service";
  } else if (port == 67) {
    advice += ", or disable that DHCP/BOOTP service";
  }
  return advice;
}

std::vector<ProcUdpLine> parseProcNetUdp(const std::string& text) {
  std::vector<ProcUdpLine> lines;
  std::istringstream in(text);
  std::string line;
  std::getline(in, line);  // the header
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
    if (!(fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >> timeout >> inode)) {
      continue;
    }
    size_t colon = local.find(':');
    if (colon != 8 || local.size() != 13) continue;
    try {
      ProcUdpLine l;
      // The address is the kernel's 32-bit word in host order, printed as
      // hex: on a little-endian machine that is network order read back.
      uint32_t word = static_cast<uint32_t>(std::stoul(local.substr(0, 8), nullptr, 16));
      l.address = word;
      l.port = static_cast<uint16_t>(std::stoul(local.substr(9), nullptr, 16));
      l.inode = std::stoull(inode);
      lines.push_back(l);
    } catch (...) {
      continue;
    }
  }
  return lines;
}

}  // namespace tarnlift::doctor
