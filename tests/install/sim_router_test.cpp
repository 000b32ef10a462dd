// The server and simulated routers talking in memory: whole installations,
// with loss and duplication, in milliseconds of test time.
#include "tools/routersim/sim_router.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>

#include "fake_transport.h"
#include "install/session.h"
#include "temp_dir.h"
#include "tests/app/capture_log.h"

namespace tarnlift {
namespace {

using namespace install;

using routersim::SimRouter;
using routersim::SimRouterConfig;

// A segment in memory: what the server sends reaches every router, what a
// router sends reaches the server; both directions may lose and duplicate.
class MemorySegment : public DatagramTransport {
 public:
  MemorySegment(double loss, double dup, uint32_t seed, size_t batch = 1)
      : loss_(loss), dup_(dup), random_(seed), batch_(batch) {}

  int send(const uint8_t* buffer, size_t length) override {
    if (holding_) {
      // Only the place is noted: what is there at the flush goes out.
      held_.push_back({buffer, length});
    } else {
      impair(toRouters, buffer, length);
    }
    return static_cast<int>(length);
  }
  size_t receiveBatchSize() const override { return batch_; }
  size_t waitReceiveBatch(uint8_t*, Received* received, size_t count, uint64_t) override {
    lastBatch_.clear();
    while (lastBatch_.size() < count && !toServer.empty()) {
      lastBatch_.push_back(toServer.front());
      toServer.pop_front();
    }
    for (size_t i = 0; i < lastBatch_.size(); ++i) {
      received[i] = {lastBatch_[i].data(), static_cast<int>(lastBatch_[i].size())};
    }
    if (lastBatch_.empty()) received[0] = {nullptr, -1};
    return std::max<size_t>(lastBatch_.size(), 1);
  }
  void holdSends() override { holding_ = batch_ > 1; }
  void flushSends() override {
    for (const auto& [buffer, length] : held_) impair(toRouters, buffer, length);
    held_.clear();
    holding_ = false;
  }
  int waitReceive(uint8_t* buffer, uint64_t) override {
    if (toServer.empty()) return -1;
    std::vector<uint8_t> next = toServer.front();
    toServer.pop_front();
    std::memcpy(buffer, next.data(), next.size());
    return static_cast<int>(next.size());
  }
  MacAddress localMac() const override { return {0x02, 0xAA, 0, 0, 0, 1}; }

  void fromRouter(const uint8_t* buffer, size_t length) { impair(toServer, buffer, length); }

  std::deque<std::vector<uint8_t>> toServer;
  std::deque<std::vector<uint8_t>> toRouters;

 private:
  void impair(std::deque<std::vector<uint8_t>>& queue, const uint8_t* buffer, size_t length) {
    std::uniform_real_distribution<double> chance(0, 1);
    if (chance(random_) < loss_) return;
    int copies = chance(random_) < dup_ ? 2 : 1;
    for (int i = 0; i < copies; ++i) queue.emplace_back(buffer, buffer + length);
  }
  double loss_;
  double dup_;
  std::mt19937 random_;
  size_t batch_;
  bool holding_ = false;
  std::vector<std::pair<const uint8_t*, size_t>> held_;
  std::vector<std::vector<uint8_t>> lastBatch_;
};

struct Rig {
  Rig(int routers, double loss, double dup, SimRouterConfig base = {}, size_t batch = 1)
      : segment(loss, dup, 7, batch) {
    for (int i = 0; i < routers; ++i) {
      SimRouterConfig config = base;
      config.mac = {0x02, 0, 0, 0, 0, static_cast<uint8_t>(i + 1)};
      config.repeatMs = 200;
      sims.push_back(std::make_unique<SimRouter>(config, [this, i](const uint8_t* d, size_t n) {
        if (i == 3 && std::getenv("TL_TRACE")) {
          std::string p(reinterpret_cast<const char*>(d) + 20, std::min<size_t>(n - 20, 4));
          std::cerr << nowMs() << " R> " << p << " seq=" << sequenceOf(d) << " ack=" << acknowledgementOf(d) << "\n";
        }
        segment.fromRouter(d, n);
      }));
    }
  }

  int64_t nowMs() const { return static_cast<int64_t>(clock.nowMicros() / 1000); }

  // Runs until every router finished or limitMs of test time passed.
  void run(int64_t limitMs, const std::function<void(const RouterRecord&)>& onDiscovered) {
    int64_t end = nowMs() + limitMs;
    while (nowMs() < end) {
      bool busy = !segment.toServer.empty();
      while (!segment.toServer.empty()) server.pollOnce();
      server.pollOnce();  // time-out scan
      RouterRecord record;
      while (server.discovered().pop(record)) onDiscovered(record);
      for (auto& sim : sims) {
        MacAddress mac = sim->config().mac;
        SessionStatus s = server.status(mac);
        // As `serve` does: once the router confirmed the end of its files
        // ("WTRM"), or its session ended in success without that.
        if ((s.confirmed || s.status == kStatusDone) && rebooted.insert(mac).second) server.reboot(mac);
      }
      while (!segment.toRouters.empty()) {
        std::vector<uint8_t> d = segment.toRouters.front();
        segment.toRouters.pop_front();
        for (auto& sim : sims) sim->onDatagram(d.data(), d.size(), nowMs());
        busy = true;
      }
      bool allDone = true;
      for (auto& sim : sims) {
        sim->tick(nowMs());
        allDone = allDone && sim->finished();
      }
      if (allDone && segment.toServer.empty() && segment.toRouters.empty()) return;
      if (!busy) clock.advanceMillis(1);
    }
  }

  MemorySegment segment;
  app::ManualClock clock{1'000'000};
  InstallServer server{segment, clock, [](const RouterRecord&, std::string&) { return std::string(); }};
  std::vector<std::unique_ptr<SimRouter>> sims;
  std::set<MacAddress> rebooted;
};

RouterRecord installRequest(const RouterRecord& discovered, const testing::TempDir& dir,
                            const std::vector<std::string>& files) {
  RouterRecord r = discovered;
  r.packageDir = dir.path();
  r.files = files;
  r.defaultConfig = true;
  return r;
}

TEST(SimulatedInstall, OneRouterReceivesEverythingAndIsRebooted) {
  testing::CapturedLog log;
  testing::TempDir dir;
  std::string a = testing::patternBytes(100'000, 1);
  dir.write("a.npk", a);
  dir.write("b.npk", "");
  Rig rig(1, 0, 0);
  rig.run(60'000, [&](const RouterRecord& r) { rig.server.start(installRequest(r, dir, {"a.npk", "b.npk"}), true); });
  SimRouter& sim = *rig.sims[0];
  ASSERT_TRUE(sim.finished()) << sim.reportLine();
  EXPECT_EQ(sim.outcome(), "installed");
  EXPECT_TRUE(sim.errors().empty());
  ASSERT_EQ(sim.files().size(), 2u);
  EXPECT_EQ(sim.files()[0].name, "a.npk");
  EXPECT_EQ(sim.files()[0].size, 100'000u);
  EXPECT_EQ(sim.files()[1].size, 0u);
  EXPECT_EQ(sim.term(), "TERM\nInstallation successful\n");
  EXPECT_EQ(sim.offers(), 1);
}

TEST(SimulatedInstall, TwentyRoutersUnderLossAndDuplication) {
  testing::CapturedLog log;
  testing::TempDir dir;
  std::string a = testing::patternBytes(50'000, 2);
  dir.write("a.npk", a);
  Rig rig(20, 0.10, 0.05);
  rig.run(600'000, [&](const RouterRecord& r) { rig.server.start(installRequest(r, dir, {"a.npk"}), true); });
  if (const char* dump = std::getenv("TL_DUMP_LOG")) std::cerr << log.text().substr(0, dump[0] == '1' ? 200000 : 0);
  uint64_t expected = 1469598103934665603ull;
  for (unsigned char c : a) expected = (expected ^ c) * 1099511628211ull;
  for (auto& sim : rig.sims) {
    EXPECT_TRUE(sim->errors().empty()) << sim->reportLine();
    ASSERT_EQ(sim->files().size(), 1u) << sim->reportLine() << " " << sim->files()[0].name << " "
                                       << sim->files()[1].name;
    EXPECT_EQ(sim->files()[0].checksum, expected);
    EXPECT_TRUE(sim->finished()) << sim->reportLine();
  }
  // Sessions whose "WTRM" got lost end 30 s after the last file.
  rig.clock.advanceMillis(30'001);
  rig.server.pollOnce();
  for (auto& sim : rig.sims) {
    EXPECT_EQ(rig.server.status(sim->config().mac).status, kStatusDone) << sim->reportLine();
  }
}

TEST(SimulatedInstall, TwentyRoutersInBatchesUnderLossAndDuplication) {
  // The loop takes up to 16 datagrams at once and the transport sends the
  // answers only after the batch, from the sessions' own buffers: files of
  // many chunks (the sender reads 16 at a time) arrive whole all the same.
  testing::CapturedLog log;
  testing::TempDir dir;
  std::string a = testing::patternBytes(70'000, 3);
  std::string b = testing::patternBytes(1452 * 16, 4);
  dir.write("a.npk", a);
  dir.write("b.npk", b);
  Rig rig(20, 0.10, 0.05, {}, 16);
  rig.run(600'000, [&](const RouterRecord& r) { rig.server.start(installRequest(r, dir, {"a.npk", "b.npk"}), true); });
  auto fnv = [](const std::string& text) {
    uint64_t h = 1469598103934665603ull;
    for (unsigned char c : text) h = (h ^ c) * 1099511628211ull;
    return h;
  };
  for (auto& sim : rig.sims) {
    EXPECT_TRUE(sim->errors().empty()) << sim->reportLine();
    ASSERT_EQ(sim->files().size(), 2u) << sim->reportLine();
    EXPECT_EQ(sim->files()[0].checksum, fnv(a));
    EXPECT_EQ(sim->files()[1].checksum, fnv(b));
    EXPECT_TRUE(sim->finished()) << sim->reportLine();
  }
}

TEST(SimulatedInstall, NackAndWrongAnswer) {
  testing::CapturedLog log;
  testing::TempDir dir;
  dir.write("a.npk", "x");
  SimRouterConfig nack;
  nack.answer = "NACK";
  Rig rig(1, 0, 0, nack);
  rig.run(5'000, [&](const RouterRecord& r) { rig.server.start(installRequest(r, dir, {"a.npk"}), true); });
  EXPECT_EQ(rig.sims[0]->outcome(), "refused");
  EXPECT_EQ(rig.server.status(rig.sims[0]->config().mac).status, kStatusFailed);

  SimRouterConfig wrong;
  wrong.answer = "HELO";
  Rig other(1, 0, 0, wrong);
  other.run(5'000, [&](const RouterRecord& r) { other.server.start(installRequest(r, dir, {"a.npk"}), true); });
  EXPECT_EQ(other.server.status(other.sims[0]->config().mac).statusText, "Installation failed: bad router response");
}

TEST(SimulatedInstall, SilentRouterTimesOut) {
  testing::CapturedLog log;
  testing::TempDir dir;
  dir.write("a.npk", testing::patternBytes(10'000));
  SimRouterConfig silent;
  silent.stopAfterRetr = 3;
  Rig rig(1, 0, 0, silent);
  rig.run(5'000, [&](const RouterRecord& r) { rig.server.start(installRequest(r, dir, {"a.npk"}), true); });
  MacAddress mac = rig.sims[0]->config().mac;
  EXPECT_EQ(rig.server.status(mac).status, kStatusInstalling);
  rig.clock.advanceMillis(30'001);
  rig.server.pollOnce();
  EXPECT_EQ(rig.server.status(mac).statusText, "Installation failed: No response from router, timeout");
}

TEST(SimulatedInstall, ReannounceAfterThreeSecondsKeepsOfferAfterSixStartsOver) {
  testing::CapturedLog log;
  testing::TempDir dir;
  dir.write("a.npk", "abc");
  for (int64_t after : {3'000, 6'000}) {
    SimRouterConfig config;
    config.reannounceMs = after;
    config.giveUpMs = 2'000;
    Rig rig(1, 0, 0, config);
    int discovered = 0;
    rig.run(60'000, [&](const RouterRecord& r) {
      ++discovered;
      RouterRecord request = installRequest(r, dir, {"a.npk"});
      request.lastSeen = static_cast<int64_t>(rig.clock.nowMicros());
      rig.server.start(request, true);
    });
    SimRouter& sim = *rig.sims[0];
    EXPECT_EQ(sim.outcome(), "installed") << after;
    EXPECT_EQ(sim.offers(), after == 3'000 ? 1 : 2) << after;
    EXPECT_EQ(discovered, after == 3'000 ? 1 : 2) << after;
  }
}

TEST(SimulatedInstall, ShutdownPayload) {
  testing::CapturedLog log;
  testing::TempDir dir;
  dir.write("a.npk", "abc");
  SimRouterConfig config;
  config.termWaitMs = 60'000;
  Rig rig(1, 0, 0, config);
  rig.rebooted.insert(rig.sims[0]->config().mac);  // keep the rig from rebooting it
  rig.run(3'000, [&](const RouterRecord& r) { rig.server.start(installRequest(r, dir, {"a.npk"}), true); });
  rig.server.shutdown(rig.sims[0]->config().mac);
  rig.run(1'000, [](const RouterRecord&) {});
  EXPECT_EQ(rig.sims[0]->term(), "TERM\nshutdown\n");
}

// A router takes only the next datagram in order. A "TERM" that comes one
// past the awaited "FILE\n" (which was lost) is dropped; the router repeats
// its request, takes "FILE\n" when it comes, answers "WTRM" and then obeys
// the "TERM" that follows it.
TEST(SimRouterAlone, TakesOnlyTheNextDatagramInOrder) {
  std::vector<std::string> sent;
  SimRouterConfig config;
  config.mac = {0x02, 0, 0, 0, 0, 1};
  config.repeatMs = 300;
  SimRouter sim(config, [&sent](const uint8_t* d, size_t n) {
    sent.emplace_back(reinterpret_cast<const char*>(d) + kHeaderSize, n - kHeaderSize);
  });
  const MacAddress server = {0x02, 0xAA, 0, 0, 0, 1};
  auto hear = [&](uint16_t seq, const std::string& payload, int64_t nowMs) {
    std::vector<uint8_t> d = testing::makeDatagram(server, config.mac, seq, 0, payload);
    sim.onDatagram(d.data(), d.size(), nowMs);
  };
  sim.tick(0);
  hear(1, "OFFR\n", 0);
  EXPECT_EQ(sent.back(), "YACK");
  hear(2, "", 0);
  sim.tick(1);
  EXPECT_EQ(sent.back(), "STRT");
  hear(3, "", 1);
  EXPECT_EQ(sent.back(), "RETR");
  size_t requests = sent.size();
  // 4 is "FILE\n", lost on the way; 5 is "TERM".
  hear(5, "TERM\nInstallation successful\n", 2);
  EXPECT_FALSE(sim.finished());
  EXPECT_EQ(sent.size(), requests);
  sim.tick(301);
  EXPECT_EQ(sent.size(), requests + 1);
  EXPECT_EQ(sent.back(), "RETR");
  hear(4, "FILE\n", 302);
  EXPECT_EQ(sent.back(), "WTRM");
  EXPECT_EQ(sim.state(), routersim::SimState::AwaitTerm);
  // "WTRM" is repeated until "TERM" comes.
  sim.tick(602);
  EXPECT_EQ(sent.back(), "WTRM");
  EXPECT_EQ(sent.size(), requests + 3);
  hear(5, "TERM\nInstallation successful\n", 700);
  EXPECT_TRUE(sim.finished());
  EXPECT_EQ(sim.outcome(), "installed");
  EXPECT_EQ(sim.term(), "TERM\nInstallation successful\n");
  EXPECT_TRUE(sim.errors().empty());
}

}  // namespace
}  // namespace tarnlift
