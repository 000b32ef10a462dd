// The responder's work from request to reply, and the TFTP transfer engine's
// own cost per 32 MiB. Through-the-network figures come from
// tftp_throughput.sh (namespaces, root).
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <iostream>
#include <ostream>
#include <streambuf>
#include <thread>
#include <vector>

#include "app/log.h"
#include "netboot/boot_images.h"
#include "netboot/bootp.h"
#include "netboot/tftp.h"
#include "net/udp_socket.h"

namespace tarnlift::netboot {
namespace {

class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
};

std::ostream& nullStream() {
  static NullBuffer buffer;
  static std::ostream stream(&buffer);
  return stream;
}

class OneRecordStore : public BootImageStore {
 public:
  explicit OneRecordStore(size_t length) {
    std::vector<uint8_t> content(length, 0x5A);
    record = makeBootImageRecord(content.data(), content.size());
  }
  bool findRecord(int, const uint8_t*& data, size_t& size) override {
    data = record.data();
    size = record.size();
    return true;
  }
  std::vector<uint8_t> record;
};

void BM_ClassifyAndBuildReply(benchmark::State& state) {
  app::setLogStream(nullStream());
  OneRecordStore store(300000);
  setBootImageStore(&store);
  std::vector<uint8_t> request = makeBootpRequest({0, 0x0C, 0x42, 1, 2, 3}, "PXEClient:Arch:00007:UNDI:003016", 7, 9);
  BootpClassifier classifier;
  uint8_t buffer[kBootpBufferSize];
  for (auto _ : state) {
    std::memset(buffer, 0, sizeof buffer);
    std::memcpy(buffer, request.data(), request.size());
    bool accepted = classifier.classify(buffer, request.size());
    size_t length = buildBootpReply(buffer, classifier.clientClass(), 1, 2, 3, "/image");
    benchmark::DoNotOptimize(accepted);
    benchmark::DoNotOptimize(length);
  }
  setBootImageStore(nullptr);
  app::setLogStream(std::cout);
}
BENCHMARK(BM_ClassifyAndBuildReply);

// Request to reply through the loopback interface: one client socket, one
// responder socket doing what the server does with a BOOTP datagram.
void BM_BootpRequestToReplyLoopback(benchmark::State& state) {
  app::setLogStream(nullStream());
  OneRecordStore store(300000);
  setBootImageStore(&store);
  net::startSocketLibrary();
  const uint32_t loopback = parseIpv4("127.0.0.1");
  net::UdpSocket server, client;
  if (!server.open() || !server.bind(loopback, 0) || !client.open() || !client.bind(loopback, 0)) {
    state.SkipWithError("no loopback sockets");
    return;
  }
  uint16_t serverPort = server.localPort();
  uint16_t clientPort = client.localPort();
  std::atomic<bool> done{false};
  std::thread responder([&] {
    BootpClassifier classifier;
    uint8_t buffer[kBootpBufferSize];
    while (!done) {
      if (!server.waitReadable(100)) continue;
      std::memset(buffer, 0, sizeof buffer);
      int n = server.receiveFrom(buffer, sizeof buffer);
      if (n <= 0 || !classifier.classify(buffer, static_cast<size_t>(n))) continue;
      size_t length = buildBootpReply(buffer, classifier.clientClass(), 1, loopback, 0xFFFFFFu, "/image");
      server.sendTo(buffer, length, loopback, clientPort);
    }
  });
  std::vector<uint8_t> request = makeBootpRequest({0, 0x0C, 0x42, 1, 2, 3}, "PXEClient:Arch:00007", 7, 9);
  uint8_t reply[kBootpBufferSize];
  for (auto _ : state) {
    client.sendTo(request.data(), request.size(), loopback, serverPort);
    if (!client.waitReadable(1000) || client.receiveFrom(reply, sizeof reply) <= 0) {
      state.SkipWithError("no reply");
      break;
    }
  }
  done = true;
  responder.join();
  setBootImageStore(nullptr);
  app::setLogStream(std::cout);
}
BENCHMARK(BM_BootpRequestToReplyLoopback)->UseRealTime();

// A client that acknowledges each packet at once, inside the process: what
// the transfer itself costs, without a network.
class InstantAckSocket : public DatagramSocket {
 public:
  int sendTo(const void* data, size_t size, uint32_t, uint16_t) override {
    const auto* bytes = static_cast<const uint8_t*>(data);
    pending = true;
    ack[2] = bytes[1] == kTftpOpOack ? 0 : bytes[2];
    ack[3] = bytes[1] == kTftpOpOack ? 0 : bytes[3];
    return static_cast<int>(size);
  }
  int receiveFrom(void* buffer, size_t, uint32_t*, uint16_t*) override {
    if (!pending) return -1;
    pending = false;
    std::memcpy(buffer, ack, 4);
    return 4;
  }
  bool wouldBlock() const override { return true; }
  bool pending = false;
  uint8_t ack[4] = {0, kTftpOpAck, 0, 0};
};

class InstantNetwork : public DatagramNetwork {
 public:
  std::unique_ptr<DatagramSocket> openBootp(uint32_t) override { return std::make_unique<InstantAckSocket>(); }
  std::unique_ptr<DatagramSocket> openTftp(uint32_t) override { return std::make_unique<InstantAckSocket>(); }
  std::unique_ptr<DatagramSocket> openTransfer(uint32_t, uint16_t) override {
    return std::make_unique<InstantAckSocket>();
  }
  int waitReadable(DatagramSocket* const* sockets, size_t count, uint32_t, bool* readable) override {
    int ready = 0;
    for (size_t i = 0; i < count; ++i) {
      readable[i] = static_cast<InstantAckSocket*>(sockets[i])->pending;
      ready += readable[i] ? 1 : 0;
    }
    return ready;
  }
};

void BM_TftpTransfer32MiBInMemory(benchmark::State& state) {
  app::setLogStream(nullStream());
  std::vector<uint8_t> content(32u << 20, 0xA5);
  const char request[] =
      "\0\1image\0octet\0blksize\0"
      "1468\0tsize\0"
      "0";
  InstantNetwork network;
  for (auto _ : state) {
    TftpTransfer transfer(network, 1, 2, 3000);
    bool done = transfer.send(reinterpret_cast<const uint8_t*>(request), sizeof request, content.data(),
                              static_cast<uint32_t>(content.size()), nullptr);
    benchmark::DoNotOptimize(done);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(content.size()));
  app::setLogStream(std::cout);
}
BENCHMARK(BM_TftpTransfer32MiBInMemory)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace tarnlift::netboot

BENCHMARK_MAIN();
