#include "netboot/interfaces.h"

#include <atomic>
#include <cstdio>
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

void publishDetails(const MacAddress& mac, const std::string& name) {
  std::lock_guard<std::mutex> lock(detailMutex());
  gServerMac = mac;
  gServerName = name;
}

// One part of an inet_addr text: decimal, 0-prefixed octal or 0x hex.
bool parsePart(const std::string& text, size_t& pos, uint64_t& value) {
  int base = 10;
  if (pos < text.size() && text[pos] == '0') {
    base = 8;
    if (pos + 1 < text.size() && (text[pos + 1] == 'x' || text[pos + 1] == 'X')) {
      base = 16;
      pos += 2;
    }
  }
  size_t start = pos;
  value = 0;
  while (pos < text.size()) {
    char c = text[pos];
    int digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (base == 16 && c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else if (base == 16 && c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    } else {
      break;
    }
    if (digit >= base) return false;
    value = value * base + digit;
    if (value > 0xFFFFFFFFull) return false;
    ++pos;
  }
  // "0x" alone is not a number; a lone "0" is (octal zero).
  return pos > start || base == 8;
}

}  // namespace

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

std::string formatMac(const uint8_t* mac) {
  char text[18];
  std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
  return text;
}

std::string formatIpv4(uint32_t address) {
  const auto* b = reinterpret_cast<const uint8_t*>(&address);
  char text[16];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
  return text;
}

uint32_t parseIpv4(const std::string& text) {
  constexpr uint32_t kNone = 0xFFFFFFFFu;
  uint64_t parts[4];
  int count = 0;
  size_t pos = 0;
  while (true) {
    if (count == 4) return kNone;
    if (pos >= text.size() || !(text[pos] >= '0' && text[pos] <= '9')) return kNone;
    if (!parsePart(text, pos, parts[count])) return kNone;
    ++count;
    if (pos < text.size() && text[pos] == '.') {
      ++pos;
      continue;
    }
    break;
  }
  // Trailing blanks are tolerated, anything else is not.
  while (pos < text.size()) {
    char c = text[pos++];
    if (c != ' ' && c != '\t' && c != '\n' && c != '\r') return kNone;
  }
  uint64_t host = 0;
  switch (count) {
    case 1:
      host = parts[0];
      break;
    case 2:
      if (parts[0] > 0xFF || parts[1] > 0xFFFFFF) return kNone;
      host = parts[0] << 24 | parts[1];
      break;
    case 3:
      if (parts[0] > 0xFF || parts[1] > 0xFF || parts[2] > 0xFFFF) return kNone;
      host = parts[0] << 24 | parts[1] << 16 | parts[2];
      break;
    default:
      for (int i = 0; i < 4; ++i) {
        if (parts[i] > 0xFF) return kNone;
      }
      host = parts[0] << 24 | parts[1] << 16 | parts[2] << 8 | parts[3];
      break;
  }
  uint8_t bytes[4] = {uint8_t(host >> 24), uint8_t(host >> 16), uint8_t(host >> 8), uint8_t(host)};
  uint32_t network;
  static_assert(sizeof network == sizeof bytes);
  std::memcpy(&network, bytes, 4);
  return network;
}

void findInterface(uint32_t clientAddress, InterfaceSource& source) {
  gServerAddress = 0;
  gServerNetmask = 0;
  std::vector<AdapterInfo> adapters;
  if (!source.listAdapters(adapters)) return;
  const AdapterInfo* chosen = nullptr;
  for (const AdapterInfo& adapter : adapters) {
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
  if (chosen == nullptr) return;
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
