// Windows: the UDP table with each socket's owning process.
#include <winsock2.h>
#include <windows.h>
#include <iphlpapi.h>

#include <vector>

#include "doctor/udp_ports.h"

namespace tarnlift::doctor {
namespace {

std::string processName(DWORD pid) {
  HANDLE process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid);
  if (process == nullptr) return "";
  char path[MAX_PATH] = {};
  DWORD size = MAX_PATH;
  std::string name;
  if (QueryFullProcessImageNameA(process, 0, path, &size)) {
    name.assign(path, size);
    size_t slash = name.find_last_of("\\/");
    if (slash != std::string::npos) name = name.substr(slash + 1);
  }
  CloseHandle(process);
  return name;
}

}  // namespace

bool udpBindings(uint16_t port, std::vector<UdpBinding>& bindings, std::string& why) {
  bindings.clear();
  ULONG size = 0;
  DWORD result = GetExtendedUdpTable(nullptr, &size, FALSE, AF_INET, UDP_TABLE_OWNER_PID, 0);
  std::vector<unsigned char> buffer;
  for (int attempt = 0; attempt < 4 && (result == ERROR_INSUFFICIENT_BUFFER || buffer.empty()); ++attempt) {
    buffer.resize(size + 1024);
    size = static_cast<ULONG>(buffer.size());
    result = GetExtendedUdpTable(buffer.data(), &size, FALSE, AF_INET, UDP_TABLE_OWNER_PID, 0);
  }
  if (result != NO_ERROR) {
    why = "the UDP table cannot be read (error " + std::to_string(result) + ")";
    return false;
  }
  const auto* table = reinterpret_cast<const MIB_UDPTABLE_OWNER_PID*>(buffer.data());
  for (DWORD i = 0; i < table->dwNumEntries; ++i) {
    const MIB_UDPROW_OWNER_PID& row = table->table[i];
    if (ntohs(static_cast<u_short>(row.dwLocalPort)) != port) continue;
    UdpBinding b;
    b.address = row.dwLocalAddr;
    b.port = port;
    if (row.dwOwningPid != 0) b.holders.push_back({row.dwOwningPid, processName(row.dwOwningPid)});
    bindings.push_back(b);
  }
  return true;
}

}  // namespace tarnlift::doctor
