// The segment between the installer and simulated routers in memory, with
// what passed it noted in order (and what a test chose to lose).
#pragma once

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/clock.h"
#include "install/session.h"
#include "install/transport.h"
#include "tools/routersim/sim_router.h"

namespace tarnlift::testing {

// What passed the segment, in order: "I " (installer) or "R " (router), the
// message ("FILE\n" alone is the end of the files; "data" a chunk), and
// " lost" for a datagram the test dropped; with the time in ms.
struct Passed {
  int64_t ms = 0;
  std::string what;
};

class Segment : public install::DatagramTransport {
 public:
  explicit Segment(const app::Clock& clock) : clock_(clock) {}
  int send(const uint8_t* b, size_t n) override {
    if (note("I ", b, n, dropToRouters)) toRouters.emplace_back(b, b + n);
    return static_cast<int>(n);
  }
  void fromRouter(const uint8_t* b, size_t n) {
    if (note("R ", b, n, dropToServer)) toServer.emplace_back(b, b + n);
  }
  int waitReceive(uint8_t* b, uint64_t) override {
    if (toServer.empty()) return -1;
    std::vector<uint8_t> next = toServer.front();
    toServer.pop_front();
    std::memcpy(b, next.data(), next.size());
    return static_cast<int>(next.size());
  }
  net::MacAddress localMac() const override { return {0x02, 0xAA, 0, 0, 0, 1}; }
  std::deque<std::vector<uint8_t>> toServer, toRouters;
  // Payloads for which these say true are lost on the way.
  std::function<bool(const std::string& payload)> dropToRouters, dropToServer;
  std::vector<Passed> passed;
  // Where `what` first passed at or after index `from`; passed.size() when never.
  size_t find(const std::string& what, size_t from = 0) const {
    while (from < passed.size() && passed[from].what != what) ++from;
    return from;
  }

 private:
  bool note(const char* who, const uint8_t* b, size_t n, const std::function<bool(const std::string&)>& drop) {
    std::string payload(reinterpret_cast<const char*>(b) + install::kHeaderSize, n - install::kHeaderSize);
    std::string what = "data";
    if (payload == "FILE\n") {
      what = payload;
    } else if (payload.size() >= 4 && std::all_of(payload.begin(), payload.begin() + 4, [](char c) {
                 return c >= 'A' && c <= 'Z';
               })) {
      what = payload.substr(0, 4);
    }
    bool lost = drop && drop(payload);
    passed.push_back({static_cast<int64_t>(clock_.nowMicros() / 1000), who + what + (lost ? " lost" : "")});
    return !lost;
  }
  const app::Clock& clock_;
};

// One millisecond (now, in ms) on the segment: the routers' timers, the
// server's polls, and what the installer sent handed to every router.
inline void passMillisecond(Segment& segment, install::InstallServer& server,
                            std::vector<std::unique_ptr<routersim::SimRouter>>& sims, int64_t now) {
  for (auto& sim : sims) sim->tick(now);
  while (!segment.toServer.empty()) server.pollOnce();
  server.pollOnce();
  while (!segment.toRouters.empty()) {
    auto d = segment.toRouters.front();
    segment.toRouters.pop_front();
    for (auto& sim : sims) sim->onDatagram(d.data(), d.size(), now);
  }
}

}  // namespace tarnlift::testing
