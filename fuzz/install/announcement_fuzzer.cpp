// Feeds arbitrary payloads to the announcement parser and to discovery on a
// server with a session for the sender.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/install/fuzz_support.h"
#include "install/discovery.h"
#include "install/session.h"

using namespace tarnlift;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzing::silenceLog();
  const net::MacAddress mac = {0x4C, 0x5E, 0x0C, 0x01, 0x02, 0x03};
  std::vector<uint8_t> payload(data, data + size);
  install::RouterRecord record;
  install::AnnouncementKind kind = install::parseAnnouncement(mac, payload.data(), payload.size(), 7, record);
  if (kind == install::AnnouncementKind::Discover && (record.architecture < 1 || record.architecture > 9))
    __builtin_trap();
  if (record.mac != mac) __builtin_trap();

  fuzzing::SinkTransport transport;
  app::ManualClock clock;
  install::InstallServer server(transport, clock,
                                [](const install::RouterRecord&, std::string&) { return std::string(); });
  server.onAnnouncement(mac, payload.data(), payload.size());
  install::RouterRecord queued;
  while (server.discovered().pop(queued)) {
    install::RouterTable table;
    table.addRouter(queued, 7);
    queued.defaultConfig = true;
    server.start(queued, true);
  }
  clock.advanceMillis(size % 10'000);
  server.onAnnouncement(mac, payload.data(), payload.size());
  return 0;
}
