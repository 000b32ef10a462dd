#include "netboot/interfaces.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "app/log.h"

namespace tarnlift::netboot {
namespace {

// What the process knows of its network: above all the interface it
// serves, written when an adapter walk has an answer and read by every
// server thread. The address, mask and gateway are one word each: atomics,
// so a reader sees a whole value without a lock. The MAC and the name are
// not, so they and the operator's choice of interface are kept under the
// mutex.
class NetworkState {
 public:
  std::atomic<uint32_t> address{0};
  std::atomic<uint32_t> netmask{0};
  std::atomic<uint32_t> gateway{0};
  std::atomic<bool> runningUnderWine{false};  // set once at start-up

  void publishDetails(const MacAddress& mac, const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    mac_ = mac;
    name_ = name;
  }
  void details(MacAddress& mac, std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    mac = mac_;
    name = name_;
  }
  std::string onlyInterface() {
    std::lock_guard<std::mutex> lock(mutex_);
    return onlyInterface_;
  }
  void setOnlyInterface(const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    onlyInterface_ = name;
  }

 private:
  std::mutex mutex_;
  MacAddress mac_{};
  std::string name_;
  std::string onlyInterface_;  // empty: any
};

NetworkState& served() {
  static NetworkState state;
  return state;
}

}  // namespace

void setOnlyInterface(const std::string& name) { served().setOnlyInterface(name); }

uint32_t serverAddress() { return served().address.load(); }
uint32_t serverNetmask() { return served().netmask.load(); }
uint32_t serverGateway() { return served().gateway.load(); }

ServedInterface servedInterface() {
  ServedInterface result;
  result.address = served().address.load();
  result.netmask = served().netmask.load();
  result.gateway = served().gateway.load();
  served().details(result.mac, result.name);
  return result;
}

void setServedInterface(const ServedInterface& chosen) {
  // The address last: a reader that sees it sees the rest.
  served().publishDetails(chosen.mac, chosen.name);
  served().netmask = chosen.netmask;
  served().gateway = chosen.gateway;
  served().address = chosen.address;
}

bool runningUnderWine() { return served().runningUnderWine.load(); }
void setRunningUnderWine(bool value) { served().runningUnderWine = value; }

bool detectRunningUnderWine() {
  const char* value = std::getenv("WINELOADER");
  bool under = value != nullptr && std::string(value).find("Application") != std::string::npos;
  setRunningUnderWine(under);
  return under;
}

void findInterface(uint32_t clientAddress, InterfaceSource& source) {
  // Several threads walk the adapters at start (network boot, installer,
  // serve itself); the values change only once the walk has an answer, so a
  // reader on another thread never sees a passing "no interface".
  auto noInterface = [] {
    served().address = 0;
    served().netmask = 0;
  };
  std::vector<AdapterInfo> adapters;
  if (!source.listAdapters(adapters)) {
    noInterface();
    return;
  }
  const AdapterInfo* chosen = nullptr;
  const std::string only = served().onlyInterface();
  for (const AdapterInfo& adapter : adapters) {
    if (!only.empty() && adapter.name != only) continue;
    for (const AdapterAddressText& entry : adapter.addresses) {
      uint32_t address = parseIpv4(entry.address);
      uint32_t mask = parseIpv4(entry.mask);
      if (address == 0 && mask == 0) continue;
      bool found = ((clientAddress ^ address) & mask) == 0;
      while (true) {
        app::logLine() << "iface: " << adapter.description << " ip-addr: " << entry.address << "/" << entry.mask
                       << " found: " << (found ? "true" : "false");
        if (!found) break;
        if (source.bindTest(address)) {
          served().publishDetails(adapter.mac, adapter.name);
          served().netmask = mask;
          served().address = address;
          chosen = &adapter;
          break;
        }
        app::logLine() << "bind test failed";
      }
      if (chosen != nullptr) break;
    }
    source.afterAdapterWalk();
    if (chosen != nullptr) break;
  }
  if (chosen == nullptr) {
    noInterface();
    return;
  }
  uint32_t gateway = 0;
  for (const std::string& text : chosen->gateways) {
    app::logLine() << "iface: " << chosen->description << " gw: " << text;
    uint32_t value = parseIpv4(text);
    if (gateway == 0 && value != 0) gateway = value;
  }
  served().gateway = gateway;
}

bool hasInterfaceFor(uint32_t clientAddress, InterfaceSource& source) {
  std::vector<AdapterPrefixes> adapters;
  if (!source.listPrefixes(adapters)) return false;
  for (const AdapterPrefixes& adapter : adapters) {
    if (adapter.loopback) continue;
    for (const UnicastPrefix& unicast : adapter.unicast) {
      if (unicast.address == 0) continue;
      if (unicast.prefixLength > 32) return true;
      uint32_t hostMask = unicast.prefixLength == 0 ? 0 : 0xFFFFFFFFu << (32 - unicast.prefixLength);
      uint8_t bytes[4] = {uint8_t(hostMask >> 24), uint8_t(hostMask >> 16), uint8_t(hostMask >> 8), uint8_t(hostMask)};
      uint32_t mask;
      std::memcpy(&mask, bytes, 4);
      if (((unicast.address ^ clientAddress) & mask) == 0) return true;
    }
  }
  return false;
}

std::vector<MacAddress> localMacAddresses(InterfaceSource& source) {
  std::vector<MacAddress> macs = source.adapterMacs();
  for (size_t i = 0; i < macs.size(); ++i) app::logLine() << "iface " << i << ": " << formatMac(macs[i]);
  if (macs.empty()) macs.emplace_back();
  if (macs[0] == MacAddress{}) {
    for (uint8_t& byte : macs[0]) byte = static_cast<uint8_t>(std::rand());
  }
  return macs;
}

void findInterface(uint32_t clientAddress) { findInterface(clientAddress, platformInterfaceSource()); }
bool hasInterfaceFor(uint32_t clientAddress) { return hasInterfaceFor(clientAddress, platformInterfaceSource()); }
std::vector<MacAddress> localMacAddresses() { return localMacAddresses(platformInterfaceSource()); }

}  // namespace tarnlift::netboot
