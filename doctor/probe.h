// Looks for the BOOTP/DHCP servers of a segment: one DHCPDISCOVER from the
// server's own hardware address, broadcast on the served interface, and
// every answer heard within the wait. A second boot server answers routers
// before we do and they boot from it; nothing else shows that.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "net/address.h"

namespace tarnlift::doctor {

struct ProbeAnswer {
  uint32_t server = 0;      // the answer's server identifier, else its source
  net::MacAddress serverMac{};
  bool macKnown = false;
  uint32_t offered = 0;     // yiaddr
  uint32_t nextServer = 0;  // siaddr
  std::string bootFile;     // the file field, or option 67
};

// The DHCPDISCOVER the probe sends: 300 bytes, broadcast flag set.
std::vector<uint8_t> makeDiscover(const net::MacAddress& mac, uint32_t xid);

// An answer to the probe: a BOOTREPLY with the probe's xid and hardware
// address. False for anything else.
bool parseProbeAnswer(const uint8_t* data, size_t length, uint32_t xid, const net::MacAddress& mac,
                      uint32_t sourceAddress, ProbeAnswer& answer);

// Sends the probe on the interface and collects the answers for waitMillis.
// False with `why` when it could not be sent (no privileges, no interface).
bool probeBootServers(const std::string& interfaceName, uint32_t interfaceAddress, const net::MacAddress& mac,
                      int waitMillis, std::vector<ProbeAnswer>& answers, std::string& why);

}  // namespace tarnlift::doctor
