// Looks for the BOOTP/DHCP servers of a segment as a DHCP client that has
// just started would find them: a DHCPDISCOVER from the server's own
// hardware address, broadcast on the served interface, sent again after 4 s
// (RFC 2131's first retransmission), and every answer heard until the end.
// A second boot server answers routers before we do and they boot from it;
// nothing else shows that. Servers may take seconds to answer: dnsmasq, by
// default, pings the address it means to offer and offers after about 3 s.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/clock.h"
#include "net/address.h"
#include "net/udp_socket.h"

namespace tarnlift::doctor {

struct ProbeAnswer {
  uint32_t server = 0;      // the answer's server identifier, else its source
  net::MacAddress serverMac{};
  bool macKnown = false;
  uint32_t offered = 0;     // yiaddr
  uint32_t nextServer = 0;  // siaddr
  std::string bootFile;     // the file field, or option 67
  int afterMillis = 0;      // from the first DHCPDISCOVER to this answer
};

// How long the probe listens unless told otherwise: 4 s after the second
// DHCPDISCOVER.
inline constexpr int kProbeMillis = 8000;

// When the probe sends its DHCPDISCOVERs, ms from the start: at 0, then as
// RFC 2131 retransmits (4 s, then 8, 16, 32 and 64 s later), each only when
// at least 4 s of listening remain after it (so 0 and 4000 for 8 s).
std::vector<int> discoverTimes(int totalMillis);

// The DHCPDISCOVER the probe sends: 300 bytes, broadcast flag set.
std::vector<uint8_t> makeDiscover(const net::MacAddress& mac, uint32_t xid);

// An answer to the probe: a BOOTREPLY with the probe's xid and hardware
// address. False for anything else.
bool parseProbeAnswer(const uint8_t* data, size_t length, uint32_t xid, const net::MacAddress& mac,
                      uint32_t sourceAddress, ProbeAnswer& answer);

// One datagram that came to UDP port 68.
struct ProbeDatagram {
  std::vector<uint8_t> bytes;
  uint32_t source = 0;  // IPv4, network order
  net::MacAddress sourceMac{};
  bool macKnown = false;
};

// The platform's half of the probe: the sockets on the interface.
class ProbeChannel {
 public:
  virtual ~ProbeChannel() = default;
  // Broadcasts the DHCPDISCOVER to UDP port 67 on the interface.
  virtual bool send(const std::vector<uint8_t>& discover, std::string& why) = 0;
  // Waits up to waitMillis for a datagram to UDP port 68; false when none came.
  virtual bool receive(int waitMillis, ProbeDatagram& datagram) = 0;
  // The hardware address of a server whose datagram did not carry it.
  virtual bool lookUpMac(uint32_t, net::MacAddress&) { return false; }
};

// The channel over UDP port 68 of the interface, as both platforms open it:
// it sends the DHCPDISCOVERs there and hears what comes to it. The
// platforms add what they know of the sender's hardware address.
class UdpProbeChannel : public ProbeChannel {
 public:
  bool open(const std::string& interfaceName, uint32_t interfaceAddress, std::string& why);
  bool send(const std::vector<uint8_t>& discover, std::string& why) override;
  bool receive(int waitMillis, ProbeDatagram& datagram) override;

 private:
  net::UdpSocket socket_;
};

// Opens the platform's channel on the interface; null with `why` when it
// cannot (no privileges, no interface, port 68 taken).
std::unique_ptr<ProbeChannel> openProbeChannel(const std::string& interfaceName, uint32_t interfaceAddress,
                                               std::string& why);

// Where the probe is: ms since it began, DHCPDISCOVERs sent, servers heard.
struct ProbeProgress {
  int elapsedMillis = 0;
  int totalMillis = 0;
  size_t sent = 0;
  size_t discovers = 0;  // how many it sends in all
  size_t answers = 0;
};
using ProbeProgressShown = std::function<void(const ProbeProgress&)>;
// "probe: listening 3 of 8 s, DHCPDISCOVER 1 of 2 sent, 1 answer"
std::string probeProgressLine(const ProbeProgress& progress);

// Sends the DHCPDISCOVERs on the channel at discoverTimes(totalMillis) and
// collects every answer until totalMillis, one per server and offered
// address. `progress` (may be empty) hears of each step, at least every
// 250 ms. False with `why` when a DHCPDISCOVER could not be sent.
bool runProbe(ProbeChannel& channel, const app::Clock& clock, const net::MacAddress& mac, uint32_t xid, int totalMillis,
              std::vector<ProbeAnswer>& answers, std::string& why, const ProbeProgressShown& progress = {});

// The probe on the interface, for totalMillis, on the platform's channel.
bool probeBootServers(const std::string& interfaceName, uint32_t interfaceAddress, const net::MacAddress& mac,
                      int totalMillis, std::vector<ProbeAnswer>& answers, std::string& why,
                      const ProbeProgressShown& progress = {});

}  // namespace tarnlift::doctor
