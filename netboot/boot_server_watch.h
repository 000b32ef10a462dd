// The watch for other boot servers: while this server serves, a second
// BOOTP/DHCP server on the segment may answer our routers first, and they
// then boot from it. The watch remembers the clients whose requests this
// server heard and reports another server's reply to one of them, at most
// once per server address per minute. It only decides; the server feeds it
// the datagrams heard on port 67 (requests) and port 68 (replies) and logs
// what it reports.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>

#include "app/clock.h"
#include "netboot/interfaces.h"

namespace tarnlift::netboot {

// How long a server address stays quiet after it was reported.
inline constexpr uint64_t kWatchReportIntervalMicros = 60'000'000;
// How many recent clients and reported servers are remembered: a segment
// where routers boot has a handful; the oldest is forgotten first.
inline constexpr size_t kWatchClientLimit = 64;
inline constexpr size_t kWatchServerLimit = 32;

// What the watch reports: the client answered and the server that answered.
struct ForeignReply {
  MacAddress client{};
  uint32_t server = 0;  // network order
};

// "another boot server answered <client MAC>: <server address>"
std::string foreignReplyText(const ForeignReply& reply);

class BootServerWatch {
 public:
  explicit BootServerWatch(const app::Clock& clock) : clock_(clock) {}

  // The address this server answers from (a new server cycle may change it);
  // replies from it are our own.
  void setOwnAddress(uint32_t address) { ownAddress_ = address; }

  // A datagram heard on the BOOTP server port: if it is a BOOTREQUEST for an
  // Ethernet address, its client is one this server serves from now on.
  void noteRequest(const uint8_t* datagram, size_t length);
  bool knowsClient(const MacAddress& mac) const;

  // A datagram heard on the BOOTP client port from sourceAddress:
  // sourcePort. True with reply filled when it is another server's
  // BOOTREPLY to a known client and that server was not reported in the
  // last minute. Anything else (our own replies, unknown clients, short or
  // malformed datagrams) is false.
  bool hearReply(const uint8_t* datagram, size_t length, uint32_t sourceAddress, uint16_t sourcePort,
                 ForeignReply& reply);

 private:
  const app::Clock& clock_;
  uint32_t ownAddress_ = 0;
  std::deque<MacAddress> clients_;         // most recent last
  std::map<uint32_t, uint64_t> reported_;  // server address -> when reported
};

}  // namespace tarnlift::netboot
