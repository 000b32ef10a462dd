#include "netboot/interfaces.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "app/log.h"

namespace tarnlift::netboot {
namespace {

// Plain shared values in the original design; atomics here so that readers
// on other threads see whole values.
std::atomic<uint32_t> gServerAddress{0};
std::atomic<uint32_t> gServerNetmask{0};
std::atomic<uint32_t> gServerGateway{0};
std::atomic<bool> gRunningUnderWine{false};

std::mutex& detailMutex() {
  static std::mutex mutex;
  return mutex;
}
MacAddress gServerMac{};
std::string gServerName;
std::string gOnlyInterface;  // empty: any; under detailMutex

void publishDetails(const MacAddress& mac, const std::string& name) {
  std::lock_guard<std::mutex> lock(detailMutex());
  gServerMac = mac;
  gServerName = name;
}

std::string onlyInterface() {
  std::lock_guard<std::mutex> lock(detailMutex());
  return gOnlyInterface;
}

}  // namespace

void setOnlyInterface(const std::string& name) {
  std::lock_guard<std::mutex> lock(detailMutex());
  gOnlyInterface = name;
}

uint32_t serverAddress() { return gServerAddress.load(); }
uint32_t serverNetmask() { return gServerNetmask.load(); }
uint32_t serverGateway() { return gServerGateway.load(); }

ServedInterface servedInterface() {
  ServedInterface served;
  served.address = gServerAddress.load();
  served.netmask = gServerNetmask.load();
  served.gateway = gServerGateway.load();
  std::lock_guard<std::mutex> lock(detailMutex());
  served.mac = gServerMac;
  served.name = gServerName;
  return served;
}

void setServedInterface(const ServedInterface& served) {
  publishDetails(served.mac, served.name);
  gServerNetmask = served.netmask;
  gServerGateway = served.gateway;
  gServerAddress = served.address;
}

bool runningUnderWine() { return gRunningUnderWine.load(); }
void setRunningUnderWine(bool value) { gRunningUnderWine = value; }

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
    gServerAddress = 0;
    gServerNetmask = 0;
  };
  std::vector<AdapterInfo> adapters;
  if (!source.listAdapters(adapters)) {
    noInterface();
    return;
  }
  const AdapterInfo* chosen = nullptr;
  const std::string only = onlyInterface();
  for (const AdapterInfo& adapter : adapters) {
    if (!only.empty() && adapter.name != only) continue;
    for (const AdapterAddressText& entry : adapter.addresses) {
      uint32_t address = parseIpv4(entry.address);
      uint32_t mask = parseIpv4(entry.mask);
      if (address == 0 && mask == 0) continue;
      bool found = ((clientAddress ^ address) & mask) == 0;
      while (true) {
        logLine() << "iface: " << adapter.description << " ip-addr: " << entry.address << "/" << entry.mask
                  << " found: " << (found ? "true" : "false");
        if (!found) break;
        if (source.bindTest(address)) {
          publishDetails(adapter.mac, adapter.name);
          gServerNetmask = mask;
          gServerAddress = address;
          chosen = &adapter;
          break;
        }
        logLine() << "bind test failed";
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
    logLine() << "iface: " << chosen->description << " gw: " << text;
    uint32_t value = parseIpv4(text);
    if (gateway == 0 && value != 0) gateway = value;
  }
  gServerGateway = gateway;
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
  for (size_t i = 0; i < macs.size(); ++i) logLine() << "iface " << i << ": " << formatMac(macs[i]);
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
