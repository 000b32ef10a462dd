// Network interface discovery: which local IPv4 interface serves a router
// named by its address (the "client address"), and the process-wide values
// that every network service of the program binds to.
//
// Usage from another subsystem:
//
//   netboot::findInterface(clientAddress);        // picks and publishes
//   uint32_t local = netboot::serverAddress();    // 0: no interface
//   netboot::ServedInterface served = netboot::servedInterface();
//   net::UdpSocket socket;                        // see net/udp_socket.h
//   socket.bindOnInterface(served.address, 5000, served.name);  // hears its broadcasts
//
// All IPv4 values are in network byte order, as inet_addr gives them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "net/address.h"

namespace tarnlift::netboot {

// The shared address types and text of net/address.h, under the names the
// boot services have always used.
using net::formatIpv4;
using net::formatMac;
using net::MacAddress;
using net::parseIpv4;

// The UDP port the bind test binds, and the target of the liveness probes.
inline constexpr uint16_t kTestPort = 12345;

// ---- Process-wide served interface -------------------------------------
// Written only by findInterface (and by tests through setServedInterface);
// read by the boot services and the installation transport without a lock.
uint32_t serverAddress();  // 0 means that no interface was found
uint32_t serverNetmask();  // 0 when none
uint32_t serverGateway();  // first non-zero gateway of the chosen adapter, 0 when none

// What else is known about the chosen interface: its hardware address (all
// zero when the platform did not say) and its system name. On Linux the name
// is the device that sockets are tied to (SO_BINDTODEVICE) so that they hear
// broadcasts arriving there and send theirs out of it; empty when none.
struct ServedInterface {
  uint32_t address = 0;
  uint32_t netmask = 0;
  uint32_t gateway = 0;
  MacAddress mac{};
  std::string name;
};
ServedInterface servedInterface();
// For tests and for front ends that choose an interface by other means.
void setServedInterface(const ServedInterface& served);

// Set once at start-up: the environment variable "WINELOADER" exists and its
// value contains "Application". Only decides whether a network tip is shown.
bool runningUnderWine();
void setRunningUnderWine(bool value);
// Reads the environment and stores the answer; returns it.
bool detectRunningUnderWine();

// ---- Discovery ----------------------------------------------------------
// Picks the first interface address (in the platform's adapter order) whose
// subnet holds clientAddress and whose port kTestPort can be bound, and
// publishes it. Nothing found: serverAddress() and serverNetmask() are 0 and
// the gateway keeps its previous value. A matching address whose test port
// stays taken keeps the caller here, retrying: callers are background
// threads that must not settle on another interface.
void findInterface(uint32_t clientAddress);

// Limits findInterface to the interface of this system name (a host with one
// interface per segment runs one server per interface); empty: any.
void setOnlyInterface(const std::string& name);

// True when some non-loopback interface has an IPv4 address in the client's
// subnet (by its on-link prefix). Publishes nothing.
bool hasInterfaceFor(uint32_t clientAddress);

// The hardware addresses of the local network adapters, at least one entry:
// when no adapter answers, the first is made of pseudo-random bytes. The
// installation transport takes the first as the program's own address.
std::vector<MacAddress> localMacAddresses();

// ---- Seam for tests -------------------------------------------------------
// What discovery reads from the operating system. The platform source walks
// the real adapter and routing lists; tests supply fakes.
struct AdapterAddressText {
  std::string address;  // dotted text as the platform lists it
  std::string mask;
};

struct AdapterInfo {
  std::string name;         // system name (Linux device name)
  std::string description;  // for the log lines
  std::vector<AdapterAddressText> addresses;
  std::vector<std::string> gateways;
  MacAddress mac{};
};

struct UnicastPrefix {
  uint32_t address = 0;  // network order
  uint32_t prefixLength = 0;
};

struct AdapterPrefixes {
  bool loopback = false;
  std::vector<UnicastPrefix> unicast;
};

class InterfaceSource {
 public:
  virtual ~InterfaceSource() = default;
  // The adapter list with address/mask and gateway texts; false (after the
  // platform logged why) when it cannot be had.
  virtual bool listAdapters(std::vector<AdapterInfo>& adapters) = 0;
  // Called after each adapter's addresses were walked; only refreshes the
  // platform's caches.
  virtual void afterAdapterWalk() {}
  // The adapters with their unicast addresses and on-link prefix lengths.
  virtual bool listPrefixes(std::vector<AdapterPrefixes>& adapters) = 0;
  // Binds a UDP socket to (address, kTestPort) and closes it again.
  virtual bool bindTest(uint32_t address) = 0;
  // The adapters' hardware addresses as the platform reports them, in order;
  // adapters that do not answer are left out.
  virtual std::vector<MacAddress> adapterMacs() = 0;
};

// The operating system's source.
InterfaceSource& platformInterfaceSource();

void findInterface(uint32_t clientAddress, InterfaceSource& source);
bool hasInterfaceFor(uint32_t clientAddress, InterfaceSource& source);
std::vector<MacAddress> localMacAddresses(InterfaceSource& source);

}  // namespace tarnlift::netboot
