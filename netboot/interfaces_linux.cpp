// Linux half of interface discovery: the interface list of getifaddrs and the
// kernel's IPv4 routing table stand in for the Windows adapter lists.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "app/log.h"
#include "netboot/interfaces.h"

namespace tarnlift::netboot {
namespace {

std::string addressText(const sockaddr* address) {
  char text[INET_ADDRSTRLEN] = "0.0.0.0";
  if (address != nullptr && address->sa_family == AF_INET) {
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text, sizeof text);
  }
  return text;
}

uint32_t addressValue(const sockaddr* address) {
  if (address == nullptr || address->sa_family != AF_INET) return 0;
  return reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr;
}

// Default routes with a gateway, per device, in table order. The table
// prints addresses as the hexadecimal of the stored (network-order) word.
std::vector<std::pair<std::string, std::string>> defaultGateways() {
  std::vector<std::pair<std::string, std::string>> result;
  std::ifstream table("/proc/net/route");
  std::string line;
  std::getline(table, line);  // heading
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string device, destination, gateway, flags;
    if (!(fields >> device >> destination >> gateway >> flags)) continue;
    unsigned long flagBits = std::strtoul(flags.c_str(), nullptr, 16);
    if (std::strtoul(destination.c_str(), nullptr, 16) != 0 || (flagBits & RTF_GATEWAY) == 0) continue;
    result.emplace_back(device, formatIpv4(static_cast<uint32_t>(std::strtoul(gateway.c_str(), nullptr, 16))));
  }
  return result;
}

class LinuxInterfaceSource : public InterfaceSource {
 public:
  bool listAdapters(std::vector<AdapterInfo>& adapters) override {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
      app::logLine() << "getifaddrs failed with error: " << errno;
      return false;
    }
    auto adapterFor = [&adapters](const std::string& name) -> AdapterInfo& {
      for (AdapterInfo& adapter : adapters) {
        if (adapter.name == name) return adapter;
      }
      AdapterInfo& added = adapters.emplace_back();
      added.name = name;
      added.description = name;
      return added;
    };
    // Like the Windows adapter list: no loopback, and a device that is down
    // does not serve anyone.
    for (ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
      if (entry->ifa_addr == nullptr || (entry->ifa_flags & IFF_LOOPBACK) != 0 || (entry->ifa_flags & IFF_UP) == 0) {
        continue;
      }
      if (entry->ifa_addr->sa_family == AF_INET) {
        adapterFor(entry->ifa_name)
            .addresses.push_back({addressText(entry->ifa_addr), addressText(entry->ifa_netmask)});
      } else if (entry->ifa_addr->sa_family == AF_PACKET) {
        const auto* link = reinterpret_cast<const sockaddr_ll*>(entry->ifa_addr);
        AdapterInfo& adapter = adapterFor(entry->ifa_name);
        if (link->sll_halen == 6) std::memcpy(adapter.mac.data(), link->sll_addr, 6);
      }
    }
    freeifaddrs(list);
    adapters.erase(std::remove_if(adapters.begin(), adapters.end(),
                                  [](const AdapterInfo& adapter) { return adapter.addresses.empty(); }),
                   adapters.end());
    for (const auto& [device, gateway] : defaultGateways()) {
      for (AdapterInfo& adapter : adapters) {
        if (adapter.name == device) adapter.gateways.push_back(gateway);
      }
    }
    return true;
  }

  bool listPrefixes(std::vector<AdapterPrefixes>& adapters) override {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
      app::logLine() << "getifaddrs failed with error: " << errno;
      return false;
    }
    std::vector<std::string> names;
    for (ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
      if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
      auto it = std::find(names.begin(), names.end(), std::string(entry->ifa_name));
      size_t index = static_cast<size_t>(it - names.begin());
      if (it == names.end()) {
        names.emplace_back(entry->ifa_name);
        adapters.emplace_back().loopback = (entry->ifa_flags & IFF_LOOPBACK) != 0;
      }
      uint32_t mask = ntohl(addressValue(entry->ifa_netmask));
      adapters[index].unicast.push_back({addressValue(entry->ifa_addr), static_cast<uint32_t>(std::popcount(mask))});
    }
    freeifaddrs(list);
    return true;
  }

  bool bindTest(uint32_t address) override {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return false;
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = address;
    local.sin_port = htons(kTestPort);
    bool bound = bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0;
    ::close(fd);
    return bound;
  }

  std::vector<MacAddress> adapterMacs() override {
    std::vector<MacAddress> macs;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return macs;
    for (ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
      if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_PACKET) continue;
      if ((entry->ifa_flags & IFF_LOOPBACK) != 0) continue;
      const auto* link = reinterpret_cast<const sockaddr_ll*>(entry->ifa_addr);
      if (link->sll_halen != 6) continue;
      MacAddress mac;
      std::memcpy(mac.data(), link->sll_addr, 6);
      if (mac != MacAddress{}) macs.push_back(mac);
    }
    freeifaddrs(list);
    return macs;
  }
};

}  // namespace

InterfaceSource& platformInterfaceSource() {
  static LinuxInterfaceSource source;
  return source;
}

}  // namespace tarnlift::netboot
