// What the boot services have done since the process started, for front
// ends that show it (the web console's network boot panel and /metrics):
// BOOTP replies, finished TFTP transfers and their bytes, and the last
// clients answered. The "PXE Booter" thread records; any thread reads.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace tarnlift::netboot {

struct AnsweredClient {
  std::string mac;  // "%02X:..." as in the logs
  int clientClass = 0;
  std::time_t when = 0;
};

struct NetbootActivity {
  uint64_t bootpReplies = 0;
  uint64_t tftpTransfers = 0;
  uint64_t tftpBytesSent = 0;
  std::vector<AnsweredClient> lastClients;  // newest first, at most kLastClients
  // "another boot server answered ..." lines: how many so far, and the last.
  uint64_t otherServerNotices = 0;
  std::string lastOtherServer;
};

inline constexpr size_t kLastClients = 16;

void recordBootpReply(const std::string& mac, int clientClass);
void recordTftpTransfer(uint64_t bytes);
void recordOtherServer(const std::string& line);
NetbootActivity netbootActivity();

}  // namespace tarnlift::netboot
