#include "netboot/netboot_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "app/clock.h"
#include "app/registry.h"
#include "app/settings_store.h"
#include "tests/app/capture_log.h"
#include "tests/netboot/fake_interfaces.h"
#include "tests/netboot/fake_network.h"

namespace tarnlift::netboot {
namespace {

using tarnlift::testing::CapturedLog;
using testing::FakeBootImageStore;
using testing::FakeInterfaceSource;
using testing::FakeNetwork;
using testing::FakeSocket;
using testing::ScopedBootImageStore;
using testing::SentDatagram;

const MacAddress kClientMac{0x00, 0x0C, 0x42, 0x11, 0x22, 0x33};

std::vector<uint8_t> readRequest(const std::string& file, bool tsize = true) {
  std::vector<uint8_t> bytes{0, 1};
  auto add = [&bytes](const std::string& text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
    bytes.push_back(0);
  };
  add(file);
  add("octet");
  if (tsize) {
    add("tsize");
    add("0");
  }
  return bytes;
}

class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    app::setDefaultSettingsStore(app::makeMemorySettingsStore());
    app::Registry registry;
    registry.openRoot(app::kSettingsKeyPath);
    registry.writeInt(kPxeEnabledValue, 1);
    registry.writeInt(kPxeClientAddressValue, kClient);
    interfaces.addAdapter("lan", "192.168.88.2", "255.255.255.0");
    store.addSized(129, 3000);
    store.addSized(143, 2000);
    store.addSized(125, 600);
    store.addSized(142, 700);
    store.addSized(126, 800);
    environment.network = &network;
    environment.clock = &clock;
    environment.interfaces = &interfaces;
    environment.sleep = [this](uint32_t milliseconds) {
      sleeps.push_back(milliseconds);
      if (onSleep) onSleep();
    };
    // The client acknowledges every packet of a transfer and keeps the data.
    network.onSend = [this](FakeSocket& socket, const SentDatagram& d) {
      if (socket.role != "transfer") return;
      if (opcode(d) == kTftpOpOack) socket.deliver({0, 4, 0, 0});
      if (opcode(d) == kTftpOpData) {
        received.insert(received.end(), d.bytes.begin() + 4, d.bytes.end());
        socket.deliver({0, 4, d.bytes[2], d.bytes[3]});
      }
    };
    network.onIdle = [this] {
      if (step < steps.size()) {
        steps[step++]();
      } else if (server != nullptr) {
        server->stopEvent().set();
      }
    };
  }
  void TearDown() override {
    app::setDefaultSettingsStore(nullptr);
    setServedInterface({});
  }

  std::unique_ptr<NetbootServer> makeServer(const std::string& kernel = "") {
    auto made = std::make_unique<NetbootServer>(kernel, environment);
    server = made.get();
    return made;
  }

  void deliverBootp(const std::string& vendorClass, int architecture = -1) {
    network.bootp->deliver(makeBootpRequest(kClientMac, vendorClass, architecture, 42), 0, 68);
  }

  std::vector<uint8_t> image(int number) {
    BootImage found = loadBootImage(number);
    return std::vector<uint8_t>(found.data, found.data + found.length);
  }

  const uint32_t kClient = parseIpv4("192.168.88.1");
  const uint32_t kServer = parseIpv4("192.168.88.2");
  app::ManualClock clock;
  FakeNetwork network;
  FakeInterfaceSource interfaces;
  FakeBootImageStore store;
  ScopedBootImageStore scopedStore{store};
  NetbootEnvironment environment;
  std::vector<uint32_t> sleeps;
  std::function<void()> onSleep;
  std::vector<std::function<void()>> steps;
  size_t step = 0;
  NetbootServer* server = nullptr;
  std::vector<uint8_t> received;
  CapturedLog log;
};

TEST_F(ServerTest, ReadsItsSettingsAtConstruction) {
  auto s = makeServer();
  EXPECT_TRUE(s->enabled());
  EXPECT_EQ(s->clientAddress(), kClient);
  EXPECT_EQ(s->currentClass(), kClassNone);
  app::setDefaultSettingsStore(app::makeMemorySettingsStore());
  auto blank = makeServer();
  EXPECT_FALSE(blank->enabled());
  EXPECT_EQ(blank->clientAddress(), 0u);
}

TEST_F(ServerTest, BootpThenTftpServesTheImageOfTheClass) {
  auto s = makeServer();
  steps.push_back([&] { deliverBootp("Powerboot"); });
  steps.push_back([&] {
    EXPECT_EQ(server->currentClass(), 129);
    network.tftp->deliver(readRequest("whatever/name"), parseIpv4("10.9.9.9"), 3000);
  });
  s->run();
  EXPECT_EQ(received, image(129));
  std::vector<SentDatagram> replies = network.sentBy("bootp");
  bool broadcast = false;
  for (const SentDatagram& d : replies) {
    if (d.port == 68) {
      broadcast = true;
      EXPECT_EQ(d.address, 0xFFFFFFFFu);
      ASSERT_EQ(d.bytes.size(), 241u);
      EXPECT_EQ(d.bytes[0], 2);
    } else {
      // Every other datagram of the BOOTP socket is the liveness probe.
      EXPECT_EQ(d.address, kServer);
      EXPECT_EQ(d.port, kTestPort);
      EXPECT_EQ(d.bytes, std::vector<uint8_t>{0});
    }
  }
  EXPECT_TRUE(broadcast);
  // The transfer goes to the configured client address, not the sender.
  for (const SentDatagram& d : network.sentBy("transfer")) {
    EXPECT_EQ(d.address, kClient);
    EXPECT_EQ(d.port, 3000);
  }
  EXPECT_TRUE(log.contains("bootp recv bytes: 300 mac=00:0C:42:11:22:33\n"));
  EXPECT_TRUE(log.contains("bootp req received\n"));
  EXPECT_TRUE(log.contains("onTftp 129 whatever/name\n"));
  EXPECT_TRUE(log.contains("sendRes=129\n"));
  EXPECT_TRUE(log.contains("sendFile 3000\n"));
}

TEST_F(ServerTest, RequestsAreNotReadBeforeABootpExchange) {
  auto s = makeServer();
  steps.push_back([&] { network.tftp->deliver(readRequest("/image"), kClient, 3000); });
  steps.push_back([&] {});
  bool stillWaiting = false;
  onSleep = nullptr;
  network.onIdle = [&] {
    if (step < steps.size()) {
      steps[step++]();
      return;
    }
    stillWaiting = network.tftp != nullptr && network.tftp->inbox.size() == 1;
    server->stopEvent().set();
  };
  // With a readable TFTP socket and no class, the server never waits, so it
  // is stopped from the probe instead.
  int probes = 0;
  network.onSend = [&](FakeSocket& socket, const SentDatagram&) {
    if (socket.role == "bootp" && ++probes == 20) {
      stillWaiting = network.tftp->inbox.size() == 1;
      server->stopEvent().set();
    }
  };
  s->run();
  EXPECT_TRUE(stillWaiting);
  EXPECT_FALSE(log.contains("onTftp"));
  EXPECT_TRUE(network.sentBy("transfer").empty());
}

TEST_F(ServerTest, EfiClientGetsImage143WhateverTheFileName) {
  auto s = makeServer();
  steps.push_back([&] { deliverBootp("PXEClient:Arch:00007", 7); });
  steps.push_back([&] { network.tftp->deliver(readRequest("/boot/anything.efi"), kClient, 3001); });
  s->run();
  EXPECT_EQ(s->currentClass(), 143);
  EXPECT_EQ(received, image(143));
  EXPECT_TRUE(log.contains("sendRes=143\n"));
  std::vector<SentDatagram> replies = network.sentBy("bootp");
  bool sawPxeReply = false;
  for (const SentDatagram& d : replies) {
    if (d.port == 68) {
      sawPxeReply = true;
      EXPECT_EQ(std::string(reinterpret_cast<const char*>(d.bytes.data() + 108)), "/image");
      EXPECT_EQ(d.bytes.size(), 251u);
    }
  }
  EXPECT_TRUE(sawPxeReply);
}

TEST_F(ServerTest, BiosPxeClientIsServedByFileName) {
  const std::pair<const char*, int> names[] = {
      {"/image", 125}, {"ldlinux.c32", 142}, {"pxelinux.cfg/01-00-0c-42", 126}, {"my-image-file", 125}};
  for (const auto& [name, number] : names) {
    received.clear();
    step = 0;
    steps = {[&, name = name] { network.tftp->deliver(readRequest(name), kClient, 3002); }};
    auto s = makeServer();
    s->setCurrentClass(125);
    s->run();
    EXPECT_EQ(received, image(number)) << name;
    EXPECT_TRUE(log.contains("sendRes=" + std::to_string(number) + "\n")) << name;
  }
  received.clear();
  step = 0;
  steps = {[&] { network.tftp->deliver(readRequest("pxelinux.0"), kClient, 3002); }};
  auto s = makeServer();
  s->setCurrentClass(125);
  s->run();
  EXPECT_TRUE(received.empty());
  EXPECT_TRUE(log.contains("unknown file name=pxelinux.0\n"));
}

TEST_F(ServerTest, ClassZeroAndWriteRequestsAreDropped) {
  auto s = makeServer();
  s->setCurrentClass(0);
  steps.push_back([&] { network.tftp->deliver(readRequest("/image"), kClient, 3003); });
  s->run();
  EXPECT_TRUE(network.sentBy("transfer").empty());
  EXPECT_TRUE(log.contains("onTftp 0 /image\n"));
  std::vector<uint8_t> write = readRequest("/image");
  write[1] = 2;
  step = 0;
  steps = {[&] { network.tftp->deliver(write, kClient, 3003); }, [&] { network.tftp->deliver({0, 1, 0}, kClient, 1); }};
  auto again = makeServer();
  again->setCurrentClass(129);
  again->run();
  EXPECT_TRUE(network.sentBy("transfer").empty());
  EXPECT_FALSE(log.contains("onTftp 129"));
}

TEST_F(ServerTest, KernelOverrideIsServedForEveryRequest) {
  std::string path = ::testing::TempDir() + "tl_kernel_override.bin";
  {
    std::ofstream out(path, std::ios::binary);
    for (int i = 0; i < 3333; ++i) out.put(static_cast<char>(i * 13));
  }
  auto s = makeServer(path);
  s->setCurrentClass(129);
  steps.push_back([&] { network.tftp->deliver(readRequest("/image"), kClient, 3004); });
  s->run();
  std::ifstream in(path, std::ios::binary);
  std::vector<uint8_t> expected((std::istreambuf_iterator<char>(in)), {});
  EXPECT_EQ(received, expected);
  EXPECT_TRUE(log.contains("send kernel override\n"));
  EXPECT_TRUE(log.contains("override len: 3333\n"));
  EXPECT_TRUE(store.lookups.empty());
  std::remove(path.c_str());
}

TEST_F(ServerTest, EmptyOverrideFileGetsAnOackWithoutTsize) {
  std::string path = ::testing::TempDir() + "tl_kernel_empty.bin";
  { std::ofstream out(path, std::ios::binary); }
  auto s = makeServer(path);
  s->setCurrentClass(129);
  steps.push_back([&] { network.tftp->deliver(readRequest("/image"), kClient, 3005); });
  s->run();
  std::vector<SentDatagram> sent = network.sentBy("transfer");
  ASSERT_FALSE(sent.empty());
  EXPECT_EQ(sent[0].bytes, (std::vector<uint8_t>{0, 6}));
  EXPECT_TRUE(log.contains("override len: 0\n"));
  std::remove(path.c_str());
}

TEST_F(ServerTest, MissingOverrideFileDropsTheRequest) {
  auto s = makeServer(::testing::TempDir() + "tl_no_such_kernel.bin");
  s->setCurrentClass(129);
  steps.push_back([&] { network.tftp->deliver(readRequest("/image"), kClient, 3006); });
  s->run();
  EXPECT_TRUE(network.sentBy("transfer").empty());
  EXPECT_FALSE(log.contains("override len:"));
}

TEST_F(ServerTest, SecondRequestDuringATransferIsDrained) {
  auto s = makeServer();
  s->setCurrentClass(129);
  steps.push_back([&] {
    network.tftp->deliver(readRequest("/image"), kClient, 3007);
    network.tftp->deliver(readRequest("/image"), kClient, 3008);
  });
  s->run();
  EXPECT_EQ(received, image(129));
  EXPECT_TRUE(log.contains("flush tftpSk: " + std::to_string(readRequest("/image").size()) + "\n"));
  for (const SentDatagram& d : network.sentBy("transfer")) EXPECT_EQ(d.port, 3007);
}

TEST_F(ServerTest, OnlyClientsThePredicateAllowsGetAnAnswerAndOthersAreLoggedOnce) {
  const MacAddress other{0x00, 0x0C, 0x42, 0x99, 0x99, 0x99};
  environment.mayAnswer = [](const uint8_t* mac) { return mac[3] == 0x11; };
  auto s = makeServer();
  steps.push_back([&] { network.bootp->deliver(makeBootpRequest(other, "Powerboot", -1, 42), 0, 68); });
  steps.push_back([&] { network.bootp->deliver(makeBootpRequest(other, "Powerboot", -1, 43), 0, 68); });
  steps.push_back([&] { EXPECT_EQ(server->currentClass(), kClassNone); });
  steps.push_back([&] { deliverBootp("Powerboot"); });
  s->run();
  size_t answers = 0;
  for (const SentDatagram& d : network.sentBy("bootp")) {
    if (d.port != 68) continue;
    ++answers;
    EXPECT_TRUE(std::equal(kClientMac.begin(), kClientMac.end(), d.bytes.begin() + 28));
  }
  EXPECT_EQ(answers, 1u);
  EXPECT_EQ(s->currentClass(), 129);
  std::string text = log.text();
  size_t first = text.find("netboot: unknown client 00:0C:42:99:99:99 not answered\n");
  ASSERT_NE(first, std::string::npos) << text;
  EXPECT_EQ(text.find("unknown client", first + 20), std::string::npos) << text;
}

TEST_F(ServerTest, InvalidAndUnansweredBootp) {
  auto s = makeServer();
  steps.push_back([&] { network.bootp->deliver(makeBootpRequest(kClientMac, "", -1, 1)); });
  steps.push_back([&] {
    network.bootp->failPort = 68;
    deliverBootp("Powerboot");
  });
  s->run();
  EXPECT_TRUE(log.contains("\tinvalid request\n"));
  EXPECT_TRUE(log.contains("FAILED TO REPLY\n"));
  EXPECT_EQ(s->currentClass(), kClassNone);
}

TEST_F(ServerTest, BootpRoundDoesNotLookAtTheTftpSocket) {
  auto s = makeServer();
  s->setCurrentClass(129);
  bool tftpUntouchedAfterBootp = false;
  steps.push_back([&] {
    deliverBootp("Powerboot");
    network.tftp->deliver(readRequest("/image"), kClient, 3009);
  });
  int probes = 0;
  network.onSend = [&, original = network.onSend](FakeSocket& socket, const SentDatagram& d) {
    original(socket, d);
    if (socket.role == "bootp" && d.port == kTestPort && step == 1 && ++probes == 2) {
      // The probe after the BOOTP round: the request is still waiting.
      tftpUntouchedAfterBootp = network.tftp->inbox.size() == 1 && network.bootp->inbox.empty();
    }
  };
  s->run();
  EXPECT_TRUE(tftpUntouchedAfterBootp);
  EXPECT_EQ(received, image(129));
}

TEST_F(ServerTest, NoInterfaceSleepsAndRestarts) {
  interfaces.adapters.clear();
  auto s = makeServer();
  EXPECT_EQ(s->cycle(), NetbootServer::CycleResult::Restart);
  EXPECT_EQ(sleeps, std::vector<uint32_t>{1000});
  EXPECT_EQ(network.opens, 0);
  s->stopEvent().set();
  EXPECT_EQ(s->cycle(), NetbootServer::CycleResult::Stop) << "a stop is noticed while no interface is found";
}

TEST_F(ServerTest, FailedProbeRestartsTheCycle) {
  auto s = makeServer();
  network.onOpen = [](FakeSocket& socket) {
    if (socket.role == "bootp") socket.failPort = kTestPort;
  };
  EXPECT_EQ(s->cycle(), NetbootServer::CycleResult::Restart);
  EXPECT_EQ(sleeps, std::vector<uint32_t>{1000});
  EXPECT_EQ(network.bootp, nullptr) << "both sockets are closed";
  EXPECT_EQ(network.tftp, nullptr);
  EXPECT_EQ(network.watch, nullptr);
  network.onOpen = nullptr;
  s->stopEvent().set();
  EXPECT_EQ(s->cycle(), NetbootServer::CycleResult::Stop);
  EXPECT_EQ(network.opens, 6) << "bootp, tftp and the watch, twice";
}

TEST_F(ServerTest, ARestartForgetsTheClientButNotTheCurrentClass) {
  auto s = makeServer();
  steps.push_back([&] { deliverBootp("tile_boot"); });
  steps.push_back([&] { server->stopEvent().set(); });
  s->run();
  EXPECT_EQ(s->currentClass(), 136);
  s->stopEvent().reset();
  step = 0;
  // Without its vendor class the same client is unknown to a new cycle.
  steps = {[&] { network.bootp->deliver(makeBootpRequest(kClientMac, "", -1, 1)); }};
  s->run();
  EXPECT_TRUE(log.contains("\tinvalid request\n"));
}

TEST_F(ServerTest, DisabledServerOnlySleepsAndWatchesTheStopEvent) {
  app::Registry registry;
  registry.openRoot(app::kSettingsKeyPath);
  registry.writeInt(kPxeEnabledValue, 0);
  auto s = makeServer();
  onSleep = [&] {
    if (sleeps.size() == 3) server->stopEvent().set();
  };
  s->run();
  EXPECT_EQ(sleeps, (std::vector<uint32_t>{1000, 1000, 1000}));
  EXPECT_TRUE(network.sentBy("bootp").empty()) << "no probe while disabled";
  EXPECT_EQ(network.timeouts, 0);
}

TEST_F(ServerTest, SettingsAreAppliedOnePerCycle) {
  auto s = makeServer();
  s->queueSettings(false, parseIpv4("192.168.88.7"));
  s->queueSettings(true, parseIpv4("192.168.88.8"));
  EXPECT_EQ(s->queuedSettings(), 2u);
  s->stopEvent().set();
  EXPECT_EQ(s->cycle(), NetbootServer::CycleResult::Stop);
  EXPECT_FALSE(s->enabled());
  EXPECT_EQ(s->clientAddress(), parseIpv4("192.168.88.7"));
  EXPECT_EQ(s->queuedSettings(), 1u);
  EXPECT_EQ(s->cycle(), NetbootServer::CycleResult::Stop);
  EXPECT_TRUE(s->enabled());
  EXPECT_EQ(s->clientAddress(), parseIpv4("192.168.88.8"));
  EXPECT_EQ(s->queuedSettings(), 0u);
  EXPECT_EQ(s->cycle(), NetbootServer::CycleResult::Stop);
  EXPECT_EQ(s->clientAddress(), parseIpv4("192.168.88.8"));
}

TEST_F(ServerTest, SettingsChangeWaitsForTheNextCycle) {
  auto s = makeServer();
  steps.push_back([&] { server->queueSettings(true, parseIpv4("10.0.0.1")); });
  s->run();
  EXPECT_EQ(s->clientAddress(), kClient) << "queued while serving: not applied yet";
  EXPECT_EQ(s->queuedSettings(), 1u);
}

TEST_F(ServerTest, SelectErrorIsFatal) {
  EXPECT_EXIT(
      {
        tarnlift::testing::fatalToStderr();
        network.failWait = true;
        makeServer()->run();
      },
      ::testing::ExitedWithCode(1), "BOX\\[select failed");
}

TEST_F(ServerTest, ThreadRunsTheServerAndTakesSettings) {
  network.onIdle = nullptr;
  environment.sleep = [](uint32_t) { app::sleepMilliseconds(1); };
  NetbootThread thread("", environment);
  EXPECT_EQ(thread.name(), "PXE Booter");
  thread.start();
  thread.changeSettings(true, parseIpv4("192.168.88.9"));
  ASSERT_NE(thread.server(), nullptr);
  thread.stopServer();
  EXPECT_TRUE(thread.isFinished());
  EXPECT_EQ(thread.server(), nullptr);
}

TEST(NetbootThreadDeathTest, SettingsWithoutAServerAreFatal) {
  EXPECT_EXIT(
      {
        tarnlift::testing::fatalToStderr();
        NetbootThread thread("");
        thread.changeSettings(true, 1);
      },
      ::testing::ExitedWithCode(1), "BOX\\[no code!!!");
}

}  // namespace
}  // namespace tarnlift::netboot

namespace tarnlift::netboot {
namespace {

// Another server's answer to a request, as it is broadcast to the client.
std::vector<uint8_t> foreignReply(const MacAddress& mac, uint32_t yiaddr, uint32_t identifier = 0) {
  std::vector<uint8_t> reply = makeBootpRequest(mac, "", -1, 42);
  reply[0] = 2;
  std::memcpy(reply.data() + 16, &yiaddr, 4);
  if (identifier != 0) {
    reply[240] = 54;
    reply[241] = 4;
    std::memcpy(reply.data() + 242, &identifier, 4);
    reply[246] = 255;
  }
  return reply;
}

size_t occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

TEST_F(ServerTest, AnotherServersAnswerToOurClientIsLoggedOncePerMinute) {
  const uint32_t other = parseIpv4("192.168.88.77");
  const uint32_t yiaddr = parseIpv4("192.168.88.150");
  auto s = makeServer();
  steps.push_back([&] {
    deliverBootp("Powerboot");
    network.watch->deliver(foreignReply(kClientMac, yiaddr), other, 67);
  });
  // Our own broadcast reply comes back to the watch: not reported.
  steps.push_back([&] { network.watch->deliver(network.sentBy("bootp").back().bytes, kServer, 67); });
  steps.push_back([&] {
    clock.advanceMillis(59'000);
    network.watch->deliver(foreignReply(kClientMac, yiaddr), other, 67);
  });
  steps.push_back([&] {
    clock.advanceMillis(1'000);
    network.watch->deliver(foreignReply(kClientMac, yiaddr), other, 67);
  });
  s->run();
  std::string line = "another boot server answered 00:0C:42:11:22:33: 192.168.88.77\n";
  EXPECT_EQ(occurrences(log.text(), line), 2u) << log.text();
  EXPECT_EQ(occurrences(log.text(), "another boot server"), 2u) << log.text();
  EXPECT_EQ(s->currentClass(), 129) << "serving goes on";
}

TEST_F(ServerTest, TheWatchChangesNoDatagramTheServerSends) {
  auto runWith = [this](bool watched) {
    network.sent.clear();
    network.refuseWatch = watched ? "" : "held";
    steps.clear();
    step = 0;
    auto s = makeServer();
    steps.push_back([&] {
      deliverBootp("PXEClient:Arch:00007", 7);
      if (watched)
        network.watch->deliver(foreignReply(kClientMac, 0, parseIpv4("10.0.0.9")), parseIpv4("192.168.88.9"), 67);
    });
    steps.push_back([&] { network.tftp->deliver(readRequest("bootx64.efi"), kClient, 3000); });
    s->run();
    std::vector<std::vector<uint8_t>> bytes;
    for (const SentDatagram& d : network.sent) bytes.push_back(d.bytes);
    return bytes;
  };
  std::vector<std::vector<uint8_t>> without = runWith(false);
  std::vector<std::vector<uint8_t>> with = runWith(true);
  ASSERT_FALSE(without.empty());
  EXPECT_EQ(with, without);
  EXPECT_TRUE(log.contains("another boot server answered 00:0C:42:11:22:33: 10.0.0.9\n")) << log.text();
}

TEST_F(ServerTest, WithoutPort68TheWatchIsOffAndServingGoesOn) {
  network.refuseWatch = "cannot bind UDP port 68 (error 98)";
  network.onOpen = [](FakeSocket& socket) {
    if (socket.role == "bootp") socket.failPort = kTestPort;
  };
  auto s = makeServer();
  EXPECT_EQ(s->cycle(), NetbootServer::CycleResult::Restart);
  network.onOpen = nullptr;
  steps.push_back([&] { deliverBootp("Powerboot"); });
  s->run();
  EXPECT_EQ(s->currentClass(), 129);
  EXPECT_EQ(network.sentBy("bootp").size() > 0, true);
  EXPECT_EQ(
      occurrences(log.text(), "netboot: not watching for other boot servers: cannot bind UDP port 68 (error 98)\n"), 1u)
      << "said once over two cycles:\n"
      << log.text();
}

TEST_F(ServerTest, ClientsTheFrontEndRefusesAreNotWatched) {
  const MacAddress other{0x00, 0x0C, 0x42, 0x99, 0x99, 0x99};
  environment.mayAnswer = [](const uint8_t* mac) { return mac[3] == 0x11; };
  auto s = makeServer();
  steps.push_back([&] {
    network.bootp->deliver(makeBootpRequest(other, "Powerboot", -1, 42), 0, 68);
    network.watch->deliver(foreignReply(other, 0), parseIpv4("192.168.88.77"), 67);
  });
  s->run();
  EXPECT_FALSE(log.contains("another boot server")) << log.text();
}

}  // namespace
}  // namespace tarnlift::netboot
