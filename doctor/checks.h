// The checks of `tarnlift doctor` that need no front end: each returns its
// findings, in the order they are printed.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "doctor/findings.h"
#include "doctor/probe.h"
#include "netboot/interfaces.h"

namespace tarnlift::doctor {

// The interface the server would serve for a client address.
struct ServedCandidate {
  bool found = false;
  std::string name;   // the system's name (for sockets and the link state)
  std::string shown;  // what a person recognises: the name, or on Windows the description
  uint32_t address = 0;
  uint32_t netmask = 0;
  net::MacAddress mac{};
};

// The first adapter with an address in the client's subnet (its own mask),
// as the server picks it; `interfaceName` non-empty limits the search.
ServedCandidate findServedCandidate(netboot::InterfaceSource& source, uint32_t clientAddress,
                                    const std::string& interfaceName);

// "eth0 10.0.0.2/24, wlan0 192.168.1.7/24": every address that exists.
std::string existingAddressesText(netboot::InterfaceSource& source);

Finding checkInterface(netboot::InterfaceSource& source, uint32_t clientAddress, const std::string& interfaceName,
                       ServedCandidate& candidate);

// Whether this process may bind the servers' ports (doctor/privileges.h).
Finding checkPrivileges();

// A firewall rule (or chain policy) that drops datagrams to the servers'
// ports.
struct FirewallBlock {
  std::string description;  // "inet filter input rule 4: udp dport 69 drop"
  std::string where;        // "inet filter input", for the fix
  std::string portsText;    // "69" or "67, 69, 5000"
};

// Reads a ruleset in nftables' JSON for rules that drop incoming UDP to
// `ports` on `interfaceName`; false with `why` when the text is not a
// ruleset. The front end supplies it: reading JSON takes a JSON library,
// which the engines do without.
using BlockingRulesReader =
    std::function<bool(const std::string& rulesetJson, const std::string& interfaceName,
                       const std::vector<uint16_t>& ports, std::vector<FirewallBlock>& blocks, std::string& why)>;

// The firewall in front of UDP 67, 69 and 5000 on the interface: nftables'
// rules on Linux, the Windows firewall's profiles and program rules on
// Windows.
std::vector<Finding> checkFirewall(const std::string& interfaceName, const BlockingRulesReader& findBlockingRules);

// UDP 67, 69, 5000 and the bind-test port on the served address.
std::vector<Finding> checkPorts(uint32_t servedAddress);
// One port: free, or held by whom and what to do (for failure messages too).
Finding checkPort(uint16_t port, uint32_t servedAddress);

// Which client classes can be served from which place, which records are
// missing, and the search order.
std::vector<Finding> checkBootImages();

// Files of the package folder skipped and why, and missing dependencies.
std::vector<Finding> checkPackages(const std::string& folder);

// mkfs.fat, mcopy (Linux) or format.com (Windows), and records 120, 124,
// 132 and 134.
std::vector<Finding> checkLocalDiskRoad();

// The answers of a probe that listened totalMillis as findings: each
// answer a warning.
std::vector<Finding> probeFindings(const std::vector<ProbeAnswer>& answers, int totalMillis);

}  // namespace tarnlift::doctor
