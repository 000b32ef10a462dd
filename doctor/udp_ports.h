// Who holds a UDP port on this machine. A server that cannot bind 67, 69 or
// 5000 says only "Address already in use"; the holder's name and PID are
// what a person needs to stop it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarnlift::doctor {

struct PortHolder {
  uint32_t pid = 0;     // 0: not known
  std::string program;  // the process name; empty when not known
};

// One bound UDP socket of the port asked for.
struct UdpBinding {
  uint32_t address = 0;  // local address, network order; 0 = every address
  uint16_t port = 0;
  std::vector<PortHolder> holders;  // every process that has the socket open
};

// The UDP sockets bound to `port` in this network namespace (Linux) or on
// this machine (Windows). False with `why` when the table cannot be read.
bool udpBindings(uint16_t port, std::vector<UdpBinding>& bindings, std::string& why);

// Only the bindings that stand in the way of a server on `address`: bound
// to it or to every address.
std::vector<UdpBinding> bindingsInTheWay(const std::vector<UdpBinding>& bindings, uint32_t address);

// "dnsmasq (PID 812)", "PID 812", or "an unknown program" for each holder,
// joined with ", ".
std::string holdersText(const UdpBinding& binding);

// What to do about a holder of `port`, for the fix text.
std::string stopAdvice(const UdpBinding& binding, uint16_t port);

// ---- Linux's table, parsed (neutral, for tests) ----------------------------
struct ProcUdpLine {
  uint32_t address = 0;  // network order
  uint16_t port = 0;
  uint64_t inode = 0;
};
// The lines of /proc/net/udp; lines that do not parse are left out.
std::vector<ProcUdpLine> parseProcNetUdp(const std::string& text);

}  // namespace tarnlift::doctor
