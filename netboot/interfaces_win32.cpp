// Windows half of interface discovery: the IP Helper adapter lists and the
// NetBIOS adapter status for hardware addresses.
// The socket headers must come before the IP Helper ones.
#include <winsock2.h>
#include <ws2tcpip.h>

#include <iphlpapi.h>
#include <nb30.h>
#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "app/log.h"
#include "netboot/interfaces.h"

namespace tarnlift::netboot {
namespace {

constexpr ULONG kFirstAdapterInfoSize = 704;
constexpr ULONG kAddressesScratchSize = 15000;
constexpr ULONG kCacheRefreshFlags = 0x190;
constexpr ULONG kIncludePrefix = 0x10;
constexpr DWORD kSoftwareLoopback = 24;

class WindowsInterfaceSource : public InterfaceSource {
 public:
  bool listAdapters(std::vector<AdapterInfo>& adapters) override {
    ULONG size = kFirstAdapterInfoSize;
    auto* info = static_cast<IP_ADAPTER_INFO*>(std::malloc(size));
    if (info == nullptr) {
      app::logLine() << "Error allocating memory";
      return false;
    }
    DWORD result = GetAdaptersInfo(info, &size);
    if (result == ERROR_BUFFER_OVERFLOW) {
      std::free(info);
      info = static_cast<IP_ADAPTER_INFO*>(std::malloc(size));
      if (info == nullptr) {
        app::logLine() << "Error allocating memory";
        return false;
      }
      result = GetAdaptersInfo(info, &size);
    }
    if (result != NO_ERROR) {
      app::logLine() << "GetAdaptersInfo failed with error: " << result;
      std::free(info);
      return false;
    }
    for (IP_ADAPTER_INFO* adapter = info; adapter != nullptr; adapter = adapter->Next) {
      AdapterInfo& entry = adapters.emplace_back();
      entry.name = adapter->AdapterName;
      entry.description = adapter->Description;
      if (adapter->AddressLength == 6) std::memcpy(entry.mac.data(), adapter->Address, 6);
      for (IP_ADDR_STRING* ip = &adapter->IpAddressList; ip != nullptr; ip = ip->Next) {
        entry.addresses.push_back({ip->IpAddress.String, ip->IpMask.String});
      }
      for (IP_ADDR_STRING* gw = &adapter->GatewayList; gw != nullptr; gw = gw->Next) {
        entry.gateways.emplace_back(gw->IpAddress.String);
      }
    }
    std::free(info);
    return true;
  }

  // Kept for its effect on the system's adapter cache; the answer is unused.
  void afterAdapterWalk() override {
    std::vector<unsigned char> scratch(kAddressesScratchSize);
    ULONG size = kAddressesScratchSize;
    GetAdaptersAddresses(AF_INET, kCacheRefreshFlags, nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(scratch.data()),
                         &size);
  }

  bool listPrefixes(std::vector<AdapterPrefixes>& adapters) override {
    ULONG size = kAddressesScratchSize;
    auto* addresses = static_cast<IP_ADAPTER_ADDRESSES*>(std::malloc(size));
    if (addresses == nullptr) {
      app::logLine() << "Error allocating memory for adapter addresses";
      return false;
    }
    ULONG result = GetAdaptersAddresses(AF_INET, kIncludePrefix, nullptr, addresses, &size);
    if (result == ERROR_BUFFER_OVERFLOW) {
      std::free(addresses);
      addresses = static_cast<IP_ADAPTER_ADDRESSES*>(std::malloc(size));
      if (addresses == nullptr) {
        app::logLine() << "Error reallocating memory for adapter addresses";
        return false;
      }
      result = GetAdaptersAddresses(AF_INET, kIncludePrefix, nullptr, addresses, &size);
    }
    if (result != NO_ERROR) {
      app::logLine() << "GetAdaptersAddresses failed with error: " << result;
      std::free(addresses);
      return false;
    }
    for (IP_ADAPTER_ADDRESSES* adapter = addresses; adapter != nullptr; adapter = adapter->Next) {
      AdapterPrefixes& entry = adapters.emplace_back();
      entry.loopback = adapter->IfType == kSoftwareLoopback;
      for (IP_ADAPTER_UNICAST_ADDRESS* unicast = adapter->FirstUnicastAddress; unicast != nullptr;
           unicast = unicast->Next) {
        const SOCKADDR* address = unicast->Address.lpSockaddr;
        if (address == nullptr || address->sa_family != AF_INET) continue;
        entry.unicast.push_back({reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr,
                                 static_cast<uint32_t>(unicast->OnLinkPrefixLength)});
      }
    }
    std::free(addresses);
    return true;
  }

  bool bindTest(uint32_t address) override {
    SOCKET s = socket(AF_INET, SOCK_DGRAM, 0);
    if (s == INVALID_SOCKET) return false;
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = address;
    local.sin_port = htons(kTestPort);
    bool bound = bind(s, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0;
    closesocket(s);
    return bound;
  }

  std::vector<MacAddress> adapterMacs() override {
    std::vector<MacAddress> macs;
    LANA_ENUM lanas{};
    NCB ncb{};
    ncb.ncb_command = NCBENUM;
    ncb.ncb_buffer = reinterpret_cast<UCHAR*>(&lanas);
    ncb.ncb_length = sizeof lanas;
    if (Netbios(&ncb) != NRC_GOODRET) return macs;
    for (int i = 0; i < lanas.length; ++i) {
      ncb = NCB{};
      ncb.ncb_command = NCBRESET;
      ncb.ncb_lana_num = lanas.lana[i];
      Netbios(&ncb);
      unsigned char status[600] = {};
      ncb = NCB{};
      ncb.ncb_command = NCBASTAT;
      ncb.ncb_lana_num = lanas.lana[i];
      std::memset(ncb.ncb_callname, ' ', NCBNAMSZ);
      ncb.ncb_callname[0] = '*';
      ncb.ncb_buffer = status;
      ncb.ncb_length = sizeof status;
      if (Netbios(&ncb) == NRC_GOODRET) {
        MacAddress mac;
        std::memcpy(mac.data(), status, 6);
        macs.push_back(mac);
      }
    }
    return macs;
  }
};

}  // namespace

InterfaceSource& platformInterfaceSource() {
  static WindowsInterfaceSource source;
  return source;
}

}  // namespace tarnlift::netboot
