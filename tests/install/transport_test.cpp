#include "install/transport.h"

#include <gtest/gtest.h>

#include <random>

#include "app/registry.h"
#include "app/sync.h"
#include "install/install_service.h"
#include "net/udp_socket.h"
#include "port_holder.h"
#include "tests/app/capture_log.h"

namespace tarnlift {
namespace {

using namespace install;

uint32_t loopback() { return parseDottedAddress("127.0.0.1"); }

uint16_t randomPort() {
  std::random_device random;
  return static_cast<uint16_t>(30000 + random() % 20000);
}

struct TransportRig {
  std::shared_ptr<app::SettingsStore> store = app::makeMemorySettingsStore();
  std::vector<uint32_t> resolved;
  std::vector<uint32_t> sleeps;
  InstallInterface served;

  InstallTransport::Options options(uint16_t backup) {
    InstallTransport::Options o;
    o.store = store;
    o.resolver = [this](uint32_t client) {
      resolved.push_back(client);
      return served;
    };
    o.backupPort = backup;
    o.broadcastAddress = loopback();
    o.sleep = [this](uint32_t ms) { sleeps.push_back(ms); };
    return o;
  }
  void setClient(uint32_t address) {
    app::Registry settings;
    settings.openRoot(app::kSettingsKeyPath, app::kFullAccess, store);
    settings.writeInt("PXE Client Address", address);
  }
};

TEST(InstallTransportTest, NoInterfaceMeansNoSocketAndSlowRetries) {
  TransportRig rig;
  rig.setClient(parseDottedAddress("192.168.88.1"));
  InstallTransport transport(rig.options(randomPort()));
  transport.init(MacAddress{1, 2, 3, 4, 5, 6}, std::nullopt, randomPort());
  EXPECT_FALSE(transport.isOpen());
  EXPECT_EQ(transport.clientAddress(), parseDottedAddress("192.168.88.1"));
  ASSERT_EQ(rig.resolved.size(), 1u);
  uint8_t buffer[kDatagramBufferSize] = {};
  EXPECT_LT(transport.send(buffer, 20), 0);
  EXPECT_EQ(rig.resolved.size(), 2u);  // sending reopened, still nothing
  EXPECT_EQ(transport.waitReceive(buffer, 1000), -1);
  EXPECT_EQ(rig.sleeps, std::vector<uint32_t>{1000});
  EXPECT_EQ(rig.resolved.size(), 3u);
  EXPECT_FALSE(transport.isOpen());
}

TEST(InstallTransportTest, LabelLoggedAtEachOpen) {
  testing::CapturedLog log;
  TransportRig rig;
  rig.served = {loopback(), {2, 0, 0, 0, 0, 7}, "lo"};
  InstallTransport transport(rig.options(randomPort()));
  transport.init(MacAddress{}, std::string("install"), randomPort());
  EXPECT_TRUE(transport.isOpen());
  EXPECT_TRUE(log.contains("socket(): install\n"));
  EXPECT_EQ(transport.localMac(), (MacAddress{2, 0, 0, 0, 0, 7}));
}

TEST(InstallTransportTest, SendsAndHearsItselfAndFiltersSourcePort) {
  TransportRig rig;
  rig.served = {loopback(), {2, 0, 0, 0, 0, 7}, "lo"};
  uint16_t port = randomPort();
  InstallTransport transport(rig.options(randomPort()));
  transport.init(MacAddress{}, std::nullopt, port);
  ASSERT_TRUE(transport.isOpen());
  uint8_t datagram[24] = {1, 2, 3, 4, 5, 6};
  ASSERT_EQ(transport.send(datagram, sizeof datagram), 24);
  uint8_t buffer[kDatagramBufferSize] = {};
  int length = transport.waitReceive(buffer, 2'000'000);
  EXPECT_EQ(length, 24);
  EXPECT_EQ(buffer[5], 6);
  // From another source port: dropped.
  ASSERT_TRUE(testing::sendFromOtherPort(transport.port(), datagram, sizeof datagram));
  EXPECT_EQ(transport.waitReceive(buffer, 2'000'000), -1);
  // Nothing at all: a time-out, answered by the probe, and -1.
  EXPECT_EQ(transport.waitReceive(buffer, 20'000), -1);
  EXPECT_TRUE(transport.isOpen());
}

TEST(InstallTransportTest, HeldSendsGoOutInOrderAndComeBackOneByOne) {
  // The loop's way: answers held until the batch is done, then sent
  // together (a run of full chunks as one segmented send where the system
  // can); received in batches, a run that came in one piece handed out as
  // the datagrams it holds, a few per call.
  TransportRig rig;
  rig.served = {loopback(), {2, 0, 0, 0, 0, 7}, "lo"};
  InstallTransport transport(rig.options(randomPort()));
  transport.init(MacAddress{}, std::nullopt, randomPort());
  ASSERT_TRUE(transport.isOpen());
  std::vector<std::vector<uint8_t>> sent;
  for (int i = 0; i < 30; ++i) sent.push_back(std::vector<uint8_t>(kHeaderSize + kChunkSize, static_cast<uint8_t>(i + 1)));
  sent.push_back(std::vector<uint8_t>(kHeaderSize + 100, 0xEE));
  sent.push_back(std::vector<uint8_t>(kHeaderSize, 0xDD));
  transport.holdSends();
  for (const auto& d : sent) EXPECT_EQ(transport.send(d.data(), d.size()), static_cast<int>(d.size()));
  transport.flushSends();
  std::vector<std::vector<uint8_t>> received;
  uint8_t scratch[kDatagramBufferSize];
  for (int calls = 0; received.size() < sent.size() && calls < 100; ++calls) {
    DatagramTransport::Received batch[8];
    size_t n = transport.waitReceiveBatch(scratch, batch, 8, 2'000'000);
    ASSERT_GE(n, 1u);
    ASSERT_LE(n, 8u);
    for (size_t i = 0; i < n; ++i) {
      ASSERT_GE(batch[i].length, 0);
      received.emplace_back(batch[i].data, batch[i].data + batch[i].length);
    }
  }
  EXPECT_EQ(received, sent);
  // Sends outside a batch go at once.
  ASSERT_EQ(transport.send(sent[0].data(), sent[0].size()), static_cast<int>(sent[0].size()));
  DatagramTransport::Received one[4];
  ASSERT_EQ(transport.waitReceiveBatch(scratch, one, 4, 2'000'000), 1u);
  EXPECT_EQ(one[0].length, static_cast<int>(sent[0].size()));
  // From another source port: reported as nothing usable.
  ASSERT_TRUE(testing::sendFromOtherPort(transport.port(), sent[1].data(), 24));
  ASSERT_EQ(transport.waitReceiveBatch(scratch, one, 4, 2'000'000), 1u);
  EXPECT_EQ(one[0].length, -1);
  // Nothing at all: a time-out, one entry with -1.
  ASSERT_EQ(transport.waitReceiveBatch(scratch, one, 4, 20'000), 1u);
  EXPECT_EQ(one[0].length, -1);
}

TEST(InstallTransportTest, TakenPortFallsBackToBackupPort) {
  testing::CapturedLog log;
  TransportRig rig;
  rig.served = {loopback(), {2, 0, 0, 0, 0, 7}, "lo"};
  uint16_t port = randomPort();
  uint16_t backup = static_cast<uint16_t>(port + 1);
  testing::PortHolder holder(port);
  ASSERT_TRUE(holder.holding());
  InstallTransport transport(rig.options(backup));
  transport.init(MacAddress{}, std::nullopt, port);
  EXPECT_TRUE(log.contains("bound to backup port\n"));
  EXPECT_EQ(transport.port(), backup);
  // It now sends to the backup port and listens there.
  uint8_t datagram[20] = {9};
  ASSERT_EQ(transport.send(datagram, sizeof datagram), 20);
  uint8_t buffer[kDatagramBufferSize] = {};
  EXPECT_EQ(transport.waitReceive(buffer, 2'000'000), 20);
  // A datagram from any other source port reaches the socket and is dropped.
  uint8_t other[20] = {7};
  ASSERT_TRUE(testing::sendFromOtherPort(backup, other, sizeof other));
  EXPECT_EQ(transport.waitReceive(buffer, 2'000'000), -1);
  EXPECT_EQ(transport.sourceAddress(), loopback());  // it did arrive
  EXPECT_EQ(transport.port(), backup);
  ASSERT_EQ(transport.send(datagram, sizeof datagram), 20);
  EXPECT_EQ(transport.waitReceive(buffer, 2'000'000), 20);
}

TEST(InstallTransportTest, KeepsTheMacItWasGivenAcrossReopens) {
  TransportRig rig;
  rig.served = {loopback(), {2, 0, 0, 0, 0, 7}, "lo"};
  InstallTransport transport(rig.options(randomPort()));
  transport.init(MacAddress{1, 2, 3, 4, 5, 6}, std::nullopt, randomPort());
  ASSERT_TRUE(transport.isOpen());
  EXPECT_EQ(transport.localMac(), (MacAddress{1, 2, 3, 4, 5, 6}));
  rig.served.mac = {2, 0, 0, 0, 0, 8};
  transport.open();
  EXPECT_EQ(transport.localMac(), (MacAddress{1, 2, 3, 4, 5, 6}));
}

TEST(InstallTransportTest, AnUnknownMacIsTakenFromTheInterfaceOnce) {
  TransportRig rig;
  rig.served = {loopback(), {2, 0, 0, 0, 0, 7}, "lo"};
  InstallTransport transport(rig.options(randomPort()));
  transport.init(MacAddress{}, std::nullopt, randomPort());
  EXPECT_EQ(transport.localMac(), (MacAddress{2, 0, 0, 0, 0, 7}));
  rig.served.mac = {2, 0, 0, 0, 0, 8};
  transport.open();
  EXPECT_EQ(transport.localMac(), (MacAddress{2, 0, 0, 0, 0, 7}));
}

TEST(InstallTransportTest, BothPortsTakenLeavesSocketOpenQuietly) {
  testing::CapturedLog log;
  TransportRig rig;
  rig.served = {loopback(), {}, "lo"};
  uint16_t port = randomPort();
  testing::PortHolder first(port);
  testing::PortHolder second(static_cast<uint16_t>(port + 1));
  InstallTransport transport(rig.options(static_cast<uint16_t>(port + 1)));
  transport.init(MacAddress{}, std::nullopt, port);
  EXPECT_TRUE(transport.isOpen());
  EXPECT_EQ(transport.port(), port);
  EXPECT_FALSE(log.contains("bound to backup port"));
  EXPECT_FALSE(log.contains("bind() failed"));
}

TEST(InstallBeaconTest, CreateSendDestroy) {
  testing::CapturedLog log;
  InstallBeacon beacon;
  ASSERT_TRUE(beacon.create());
  EXPECT_TRUE(beacon.exists());
  beacon.send(loopback(), randomPort());
  EXPECT_FALSE(log.contains("UDP: sendto"));
  beacon.destroy();
  EXPECT_FALSE(beacon.exists());
  beacon.send();  // no socket: nothing happens
}

// The beacon's bytes on the wire: exactly the 21 characters, no terminating
// zero, to port 5010 (here on the loopback address instead of a broadcast).
TEST(InstallBeaconTest, TwentyOneBytesToPort5010) {
  EXPECT_EQ(kBeaconPort, 5010);
  net::startSocketLibrary();
  net::UdpSocket receiver;
  ASSERT_TRUE(receiver.open());
  // Another test program may hold the port for a moment; wait a bounded time.
  bool bound = false;
  for (int attempt = 0; attempt < 50 && !bound; ++attempt) {
    bound = receiver.bind(loopback(), kBeaconPort);
    if (!bound) app::sleepMilliseconds(100);
  }
  ASSERT_TRUE(bound);
  InstallBeacon beacon;
  ASSERT_TRUE(beacon.create());
  beacon.send(loopback());
  char buffer[64] = {};
  ASSERT_TRUE(receiver.waitReadable(2000));
  int length = receiver.receiveFrom(buffer, sizeof buffer);
  ASSERT_EQ(length, 21);
  EXPECT_EQ(std::string(buffer, 21), "you have to etherboot");
}

TEST(InstallBeaconTest, ProcessSwitch) {
  testing::CapturedLog log;
  setBeacon(true);
  EXPECT_NE(processBeacon(), nullptr);
  setBeacon(false);
  EXPECT_EQ(processBeacon(), nullptr);
  EXPECT_TRUE(log.contains("beacon: 1\n"));
  EXPECT_TRUE(log.contains("beacon: 0\n"));
}

TEST(InstallBeaconTest, ASecondSwitchOnKeepsTheBeaconThatRuns) {
  testing::CapturedLog log;
  InstallServices services;
  EXPECT_EQ(services.beacon(), nullptr);
  services.setBeacon(true);
  InstallBeacon* first = services.beacon();
  ASSERT_NE(first, nullptr);
  EXPECT_TRUE(first->exists());
  services.setBeacon(true);
  EXPECT_EQ(services.beacon(), first);
  EXPECT_EQ(processBeacon(), nullptr) << "the process's own switch is not touched";
  services.setBeacon(false);
  EXPECT_EQ(services.beacon(), nullptr);
}

}  // namespace
}  // namespace tarnlift
