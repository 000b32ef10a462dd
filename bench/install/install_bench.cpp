// In-process costs of the installation server: what answering one "RETR"
// costs the server (session, connection, file read, header), next to the
// floor of copying a chunk from memory; and whole installations in memory
// with the router simulator. The network comparison is throughput.sh.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <ostream>
#include <streambuf>
#include <vector>

#include "app/log.h"
#include "install/session.h"
#include "tools/routersim/sim_router.h"

using namespace tarnlift;

namespace {

class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
};

void silence() {
  static NullBuffer buffer;
  static std::ostream sink(&buffer);
  app::setLogStream(sink);
}

const net::MacAddress kRouter = {0x02, 0, 0, 0, 0, 1};

class Sink : public install::DatagramTransport {
 public:
  int send(const uint8_t* buffer, size_t length) override {
    last.assign(buffer, buffer + length);
    return static_cast<int>(length);
  }
  int waitReceive(uint8_t*, uint64_t) override { return -1; }
  net::MacAddress localMac() const override { return {0x02, 0xAA, 0, 0, 0, 1}; }
  std::vector<uint8_t> last;
};

std::string packageFile(size_t size) {
  std::string path = (std::filesystem::temp_directory_path() / ("tl-bench-" + std::to_string(size) + ".npk")).string();
  if (!std::filesystem::exists(path) || std::filesystem::file_size(path) != size) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    std::vector<char> block(1 << 20, 'x');
    for (size_t left = size; left > 0;) {
      size_t n = std::min(left, block.size());
      std::fwrite(block.data(), 1, n, f);
      left -= n;
    }
    std::fclose(f);
  }
  return path;
}

std::vector<uint8_t> routerDatagram(uint16_t seq, uint16_t ack, const char* payload) {
  size_t length = std::strlen(payload);
  std::vector<uint8_t> d(install::kHeaderSize + length, 0);
  std::memcpy(d.data(), kRouter.data(), 6);
  net::MacAddress server = {0x02, 0xAA, 0, 0, 0, 1};
  std::memcpy(d.data() + 6, server.data(), 6);
  install::writeLe16(d.data() + install::kPayloadLengthOffset, static_cast<uint16_t>(length));
  install::writeLe16(d.data() + install::kSequenceOffset, seq);
  install::writeLe16(d.data() + install::kAcknowledgementOffset, ack);
  std::memcpy(d.data() + install::kHeaderSize, payload, length);
  return d;
}

// The server's side of one round trip: accept a "RETR", read the next chunk
// of the file, build the header and hand the datagram to the transport.
void BM_ServerAnswersRetr(benchmark::State& state) {
  silence();
  const size_t size = 16 << 20;
  std::string path = packageFile(size);
  Sink sink;
  app::ManualClock clock;
  uint64_t bytes = 0;
  while (state.KeepRunning()) {
    state.PauseTiming();
    install::RouterRecord request;
    request.mac = kRouter;
    request.defaultConfig = true;
    request.files = {path};
    auto session = std::make_unique<install::Installator>(
        request, true, sink, clock, [](const install::RouterRecord&, std::string&) { return std::string(); });
    uint16_t seq = 1;
    session->onDatagram(routerDatagram(seq, 1, "YACK").data(), install::kHeaderSize + 4);
    ++seq;
    session->onDatagram(routerDatagram(seq, 2, "STRT").data(), install::kHeaderSize + 4);
    state.ResumeTiming();
    // Header, every chunk, the empty chunk.
    while (true) {
      ++seq;
      std::vector<uint8_t> retr = routerDatagram(seq, install::sequenceOf(sink.last.data()), "RETR");
      session->onDatagram(retr.data(), retr.size());
      size_t payload = sink.last.size() - install::kHeaderSize;
      bytes += payload;
      if (session->request().progress >= size && payload == 0) break;
    }
    state.PauseTiming();
    session.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
  state.counters["round_trips"] =
      benchmark::Counter(static_cast<double>(bytes) / install::kChunkSize, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ServerAnswersRetr)->Unit(benchmark::kMillisecond);

// The floor: the same datagrams made from a block in memory.
void BM_FloorAnswersRetr(benchmark::State& state) {
  const size_t size = 16 << 20;
  std::vector<uint8_t> block(install::kChunkSize, 0xA5);
  Sink sink;
  install::InstallConnection connection;
  uint8_t datagram[install::kDatagramBufferSize] = {};
  uint64_t bytes = 0;
  for (auto _ : state) {
    for (size_t sent = 0; sent < size; sent += install::kChunkSize) {
      size_t n = std::min(install::kChunkSize, size - sent);
      std::memcpy(datagram + install::kHeaderSize, block.data(), n);
      connection.buildHeader(datagram, static_cast<uint16_t>(n));
      sink.send(datagram, install::kHeaderSize + n);
      bytes += n;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(BM_FloorAnswersRetr)->Unit(benchmark::kMillisecond);

// Whole installations in memory: the server loop and N simulated routers.
void BM_InMemoryInstall(benchmark::State& state) {
  silence();
  const int routers = static_cast<int>(state.range(0));
  const size_t size = 4 << 20;
  std::string path = packageFile(size);
  uint64_t bytes = 0;
  for (auto _ : state) {
    struct Segment : install::DatagramTransport {
      std::vector<std::vector<uint8_t>> toServer, toRouters;
      size_t next = 0;
      int send(const uint8_t* b, size_t n) override {
        toRouters.emplace_back(b, b + n);
        return static_cast<int>(n);
      }
      int waitReceive(uint8_t* b, uint64_t) override {
        if (next >= toServer.size()) return -1;
        std::memcpy(b, toServer[next].data(), toServer[next].size());
        return static_cast<int>(toServer[next++].size());
      }
      net::MacAddress localMac() const override { return {0x02, 0xAA, 0, 0, 0, 1}; }
    } segment;
    app::ManualClock clock;
    install::InstallServer server(segment, clock,
                                  [](const install::RouterRecord&, std::string&) { return std::string(); });
    std::vector<std::unique_ptr<routersim::SimRouter>> sims;
    for (int i = 0; i < routers; ++i) {
      routersim::SimRouterConfig config;
      config.mac = {0x02, 0, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
      sims.push_back(std::make_unique<routersim::SimRouter>(
          config, [&segment](const uint8_t* d, size_t n) { segment.toServer.emplace_back(d, d + n); }));
    }
    bool done = false;
    while (!done) {
      int64_t now = static_cast<int64_t>(clock.nowMicros() / 1000);
      for (auto& sim : sims) sim->tick(now);
      while (segment.next < segment.toServer.size()) server.pollOnce();
      segment.toServer.clear();
      segment.next = 0;
      install::RouterRecord record;
      while (server.discovered().pop(record)) {
        record.defaultConfig = true;
        record.files = {path};
        server.start(record, true);
      }
      std::vector<std::vector<uint8_t>> batch;
      batch.swap(segment.toRouters);
      for (auto& d : batch) {
        for (auto& sim : sims) sim->onDatagram(d.data(), d.size(), now);
      }
      done = true;
      for (auto& sim : sims) done = done && sim->state() == routersim::SimState::AwaitTerm;
      if (batch.empty()) clock.advanceMillis(1);
    }
    for (auto& sim : sims) bytes += sim->bytesReceived();
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(BM_InMemoryInstall)->Arg(1)->Arg(10)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
