#include "netboot/netboot_activity.h"

#include <mutex>

namespace tarnlift::netboot {
namespace {

std::mutex& activityMutex() {
  static std::mutex mutex;
  return mutex;
}

NetbootActivity& activity() {
  static NetbootActivity value;
  return value;
}

}  // namespace

void recordBootpReply(const std::string& mac, int clientClass) {
  std::lock_guard<std::mutex> lock(activityMutex());
  NetbootActivity& a = activity();
  ++a.bootpReplies;
  a.lastClients.insert(a.lastClients.begin(), {mac, clientClass, std::time(nullptr)});
  if (a.lastClients.size() > kLastClients) a.lastClients.resize(kLastClients);
}

void recordTftpTransfer(uint64_t bytes) {
  std::lock_guard<std::mutex> lock(activityMutex());
  ++activity().tftpTransfers;
  activity().tftpBytesSent += bytes;
}

void recordOtherServer(const std::string& line) {
  std::lock_guard<std::mutex> lock(activityMutex());
  ++activity().otherServerNotices;
  activity().lastOtherServer = line;
}

NetbootActivity netbootActivity() {
  std::lock_guard<std::mutex> lock(activityMutex());
  return activity();
}

}  // namespace tarnlift::netboot
