#include "install/transport.h"
#include "netboot/interfaces.h"

namespace tarnlift::install {

// The transport serves whatever interface discovery publishes for the
// client address, and takes that interface's MAC as its own.
InstallInterfaceResolver defaultInstallInterfaceResolver() {
  return [](uint32_t clientAddress) {
    netboot::findInterface(clientAddress);
    netboot::ServedInterface served = netboot::servedInterface();
    InstallInterface result;
    result.address = netboot::serverAddress();
    result.mac = served.mac;
    result.name = served.name;
    if (isZeroMac(result.mac) && result.address != 0) {
      std::vector<netboot::MacAddress> macs = netboot::localMacAddresses();
      if (!macs.empty()) result.mac = macs.front();
    }
    return result;
  };
}

}  // namespace tarnlift::install
