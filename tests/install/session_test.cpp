#include "install/session.h"

#include <gtest/gtest.h>

#include <map>

#include "fake_transport.h"
#include "temp_dir.h"
#include "tests/app/capture_log.h"

namespace tarnlift {
namespace {

using namespace install;

using testing::FakeTransport;
using testing::kRouterMac;
using testing::kServerMac;
using testing::ScriptedRouter;

// Drives one server over the fake transport with a hand-moved clock.
class SessionTest : public ::testing::Test {
 protected:
  FakeTransport transport;
  app::ManualClock clock{5'000'000};
  testing::TempDir dir;
  InstallServer server{transport, clock, [this](const RouterRecord& r, std::string& failure) {
                         scriptRequests.push_back(r);
                         failure = scriptFailure;
                         return scriptPath;
                       }};
  ScriptedRouter router;
  std::vector<RouterRecord> scriptRequests;
  std::string scriptPath;
  std::string scriptFailure;

  RouterRecord request(std::vector<std::string> files) {
    RouterRecord r;
    r.mac = kRouterMac;
    r.packageDir = dir.path();
    r.files = std::move(files);
    r.lastSeen = static_cast<int64_t>(clock.nowMicros());
    r.defaultConfig = true;
    return r;
  }
  // Delivers one datagram and runs one pass of the loop; returns what the
  // server answered (empty when nothing).
  std::string deliver(const std::vector<uint8_t>& datagram) {
    size_t before = transport.sent.size();
    transport.incoming.push_back(datagram);
    server.pollOnce();
    if (transport.sent.size() == before) return "<none>";
    router.heard(transport.sent.back());
    return transport.lastPayload();
  }
  std::string say(const std::string& payload) { return deliver(router.next(payload)); }
  SessionStatus status() { return server.status(kRouterMac); }
  Installator* session() { return server.session(kRouterMac); }
  // Runs the conversation up to the transfer.
  void toTransfer(const RouterRecord& r) {
    server.start(r, true);
    router.heard(transport.sent.back());
    ASSERT_EQ(say("YACK"), "");
    ASSERT_EQ(say("STRT"), "");
  }
  // Requests until the file list ends; returns received files by name.
  std::map<std::string, std::string> receiveAll() {
    std::map<std::string, std::string> files;
    while (true) {
      std::string header = say("RETR");
      if (header == "FILE\n") break;
      EXPECT_EQ(header.rfind("FILE\n", 0), 0u) << header;
      size_t nameEnd = header.find('\n', 5);
      std::string name = header.substr(5, nameEnd - 5);
      size_t size = std::stoul(header.substr(nameEnd + 1));
      std::string data;
      while (true) {
        std::string chunk = say("RETR");
        EXPECT_LE(chunk.size(), kChunkSize);
        if (chunk.empty()) break;
        data += chunk;
      }
      EXPECT_EQ(data.size(), size);
      files[name] = data;
    }
    return files;
  }
};

TEST_F(SessionTest, WholeInstallationInOrder) {
  testing::CapturedLog log;
  std::string a = testing::patternBytes(5000, 1);
  std::string b = testing::patternBytes(100, 2);
  dir.write("a.npk", a);
  dir.write("b.npk", b);
  RouterRecord r = request({"a.npk", "b.npk"});
  r.totalSize = 5100;
  server.start(r, true);
  EXPECT_EQ(transport.lastPayload(), "OFFR\n");
  EXPECT_EQ(sequenceOf(transport.sent.back().data()), 1);
  EXPECT_EQ(status().status, kStatusInstalling);
  EXPECT_EQ(status().statusText, "Sending offer...");
  router.heard(transport.sent.back());
  EXPECT_EQ(say("YACK"), "");
  EXPECT_EQ(status().statusText, "Formatting harddrive...");
  EXPECT_EQ(say("STRT"), "");
  auto files = receiveAll();
  EXPECT_EQ(files["a.npk"], a);
  EXPECT_EQ(files["b.npk"], b);
  EXPECT_EQ(status().status, kStatusWaitingReboot);
  EXPECT_EQ(status().statusText, "Done");
  EXPECT_EQ(status().progress, 5100u);
  EXPECT_EQ(say("WTRM"), "<none>");
  EXPECT_EQ(session()->state(), InstallState::AwaitTerminate);
  clock.advanceMillis(2999);
  server.pollOnce();
  EXPECT_EQ(status().status, kStatusWaitingReboot);
  clock.advanceMillis(2);
  server.pollOnce();
  EXPECT_EQ(status().status, kStatusDone);
  EXPECT_EQ(status().statusText, "Installation finished successfully");
  EXPECT_TRUE(log.contains("prepare ok\n"));
  EXPECT_TRUE(log.contains("format ok\n"));
  EXPECT_TRUE(log.contains("sending a.npk, size: 5000\n"));
}

TEST_F(SessionTest, StatusTextsWhileTransferring) {
  dir.write("a.npk", "x");
  std::string mode = dir.write("mode.rsc", "mode");
  scriptPath = dir.write("gen.scr", "auto");
  RouterRecord r = request({"a.npk"});
  r.modeScriptEnabled = true;
  r.modeScriptPath = mode;
  toTransfer(r);
  EXPECT_EQ(say("RETR"), "FILE\na.npk\n1\n");
  EXPECT_EQ(status().statusText, "Transferring: a.npk");
  say("RETR");
  say("RETR");
  EXPECT_EQ(say("RETR"), "FILE\nmode.scr\n4\n");
  EXPECT_EQ(status().statusText, "Transferring: mode script");
  say("RETR");
  say("RETR");
  EXPECT_EQ(say("RETR"), "FILE\nautorun.scr\n4\n");
  EXPECT_EQ(status().statusText, "Transferring: configuration");
}

TEST_F(SessionTest, OfferLinesKeepAndRemoveBranding) {
  RouterRecord r = request({});
  r.keepConfig = true;
  r.hasBranding = true;
  r.keepBranding = false;
  server.start(r, true);
  EXPECT_EQ(transport.lastPayload(), "OFFR\nkeep\nremoveBranding\n");
  RouterRecord plain = request({});
  plain.hasBranding = false;
  plain.keepBranding = false;
  server.start(plain, true);
  EXPECT_EQ(transport.lastPayload(), "OFFR\n");
}

TEST_F(SessionTest, RepeatedRetrResendsLastChunkUnchanged) {
  std::string data = testing::patternBytes(4000, 3);
  dir.write("a.npk", data);
  toTransfer(request({"a.npk"}));
  say("RETR");
  std::string first = say("RETR");
  EXPECT_EQ(first, data.substr(0, 1452));
  auto original = transport.sent.back();
  // The router did not hear us and asks again with the same numbers.
  auto repeat = router.repeat("RETR");
  writeLe16(repeat.data() + kAcknowledgementOffset, static_cast<uint16_t>(sequenceOf(original.data()) - 1));
  transport.incoming.push_back(repeat);
  server.pollOnce();
  EXPECT_EQ(transport.sent.back(), original);
  EXPECT_EQ(say("RETR"), data.substr(1452, 1452));
}

TEST_F(SessionTest, RepeatAlreadyAnsweredIsNotResent) {
  dir.write("a.npk", "abc");
  toTransfer(request({"a.npk"}));
  say("RETR");
  size_t before = transport.sent.size();
  // Repeat that acknowledges our latest datagram: nothing to resend.
  transport.incoming.push_back(router.repeat("RETR"));
  server.pollOnce();
  EXPECT_EQ(transport.sent.size(), before);
}

TEST_F(SessionTest, ZeroByteFile) {
  dir.write("empty.npk", "");
  toTransfer(request({"empty.npk"}));
  EXPECT_EQ(say("RETR"), "FILE\nempty.npk\n0\n");
  EXPECT_EQ(say("RETR"), "");
  EXPECT_EQ(say("RETR"), "FILE\n");
}

TEST_F(SessionTest, ExactChunkSizedFile) {
  std::string data = testing::patternBytes(1452, 4);
  dir.write("one.npk", data);
  toTransfer(request({"one.npk"}));
  EXPECT_EQ(say("RETR"), "FILE\none.npk\n1452\n");
  EXPECT_EQ(say("RETR"), data);
  EXPECT_EQ(say("RETR"), "");
  EXPECT_EQ(say("RETR"), "FILE\n");
}

TEST_F(SessionTest, LastPathEndingInScrIsSentAsAutorun) {
  dir.write("a.npk", "1");
  std::string user = dir.write("user.scr", "22");
  toTransfer(request({"a.npk", user}));
  say("RETR");
  say("RETR");
  say("RETR");
  EXPECT_EQ(say("RETR"), "FILE\nautorun.scr\n2\n");
}

TEST_F(SessionTest, WithoutWtrmSucceedsThirtySecondsAfterLastFile) {
  toTransfer(request({}));
  EXPECT_EQ(say("RETR"), "FILE\n");
  clock.advanceMillis(29'999);
  server.pollOnce();
  EXPECT_EQ(status().status, kStatusWaitingReboot);
  clock.advanceMillis(2);
  server.pollOnce();
  EXPECT_EQ(status().status, kStatusDone);
  EXPECT_EQ(status().statusText, "Installation finished successfully");
  // Success, but the router never confirmed that it has everything.
  EXPECT_FALSE(status().confirmed);
}

TEST_F(SessionTest, ALostEndOfFilesIsSentAgainOnTheRoutersRepeatedRetr) {
  dir.write("a.npk", "abc");
  toTransfer(request({"a.npk"}));
  say("RETR");
  say("RETR");
  EXPECT_EQ(say("RETR"), "");
  // The router asks for more; "FILE\n" goes out and is lost on the way.
  transport.incoming.push_back(router.next("RETR"));
  server.pollOnce();
  auto end = transport.sent.back();
  ASSERT_EQ(FakeTransport::payloadOf(end), "FILE\n");
  EXPECT_EQ(status().status, kStatusWaitingReboot);
  EXPECT_FALSE(status().confirmed);
  // Its repeat (same numbers: it never heard "FILE\n") gets it again, as
  // it stands, as often as it asks.
  for (int i = 0; i < 2; ++i) {
    clock.advanceMillis(1'000);
    transport.incoming.push_back(router.repeat("RETR"));
    server.pollOnce();
    EXPECT_EQ(transport.sent.back(), end);
  }
  router.heard(end);
  EXPECT_EQ(say("WTRM"), "<none>");
  EXPECT_TRUE(status().confirmed);
  EXPECT_EQ(status().status, kStatusWaitingReboot);
  clock.advanceMillis(3'001);
  server.pollOnce();
  EXPECT_EQ(status().status, kStatusDone);
  EXPECT_TRUE(status().confirmed);
}

TEST_F(SessionTest, WrongAnswerToOfferFails) {
  testing::CapturedLog log;
  server.start(request({}), true);
  router.heard(transport.sent.back());
  say("STRT");
  EXPECT_EQ(status().status, kStatusFailed);
  EXPECT_EQ(status().statusText, "Installation failed: bad router response");
  EXPECT_EQ(session()->state(), InstallState::Finished);
  EXPECT_TRUE(log.contains("fail: bad router response\n"));
}

TEST_F(SessionTest, NackFails) {
  server.start(request({}), true);
  router.heard(transport.sent.back());
  say("NACK");
  EXPECT_EQ(status().status, kStatusFailed);
  EXPECT_EQ(status().statusText, "Installation failed: router refused installation");
}

TEST_F(SessionTest, WrongMessagesInLaterStatesFail) {
  server.start(request({}), true);
  router.heard(transport.sent.back());
  say("YACK");
  say("RETR");
  EXPECT_EQ(status().statusText, "Installation failed: bad router response");
  dir.write("a.npk", "abc");
  server.start(request({"a.npk"}), true);
  router = ScriptedRouter();
  router.heard(transport.sent.back());
  say("YACK");
  say("STRT");
  say("RETR");
  say("WTRM");
  EXPECT_EQ(status().statusText, "Installation failed: bad router response");
}

TEST_F(SessionTest, OfferTimesOutAfterSixtySeconds) {
  server.start(request({}), true);
  clock.advanceMillis(59'999);
  server.pollOnce();
  EXPECT_EQ(status().status, kStatusInstalling);
  EXPECT_LE(transport.waits.back(), 1000u);
  clock.advanceMillis(1);
  server.pollOnce();
  EXPECT_EQ(status().status, kStatusFailed);
  EXPECT_EQ(status().statusText, "Installation failed: No response from router, timeout");
  EXPECT_EQ(status().progress, 0u);
}

TEST_F(SessionTest, FormattingMayTakeADay) {
  server.start(request({}), true);
  router.heard(transport.sent.back());
  say("YACK");
  clock.advanceMicros(kFormatTimeoutUs - 1);
  server.pollOnce();
  EXPECT_EQ(session()->state(), InstallState::AwaitStart);
  clock.advanceMicros(1);
  server.pollOnce();
  EXPECT_EQ(status().statusText, "Installation failed: No response from router, timeout");
}

TEST_F(SessionTest, TransferTimesOutAfterThirtySecondsOfSilence) {
  dir.write("a.npk", "abc");
  toTransfer(request({"a.npk"}));
  say("RETR");
  clock.advanceMillis(29'000);
  say("RETR");  // renews the deadline
  clock.advanceMillis(29'000);
  server.pollOnce();
  EXPECT_EQ(session()->state(), InstallState::Transfer);
  clock.advanceMillis(1'001);
  server.pollOnce();
  EXPECT_EQ(status().statusText, "Installation failed: No response from router, timeout");
}

TEST_F(SessionTest, InvalidDatagramDoesNotRenewDeadline) {
  testing::CapturedLog log;
  server.start(request({}), true);
  clock.advanceMillis(59'000);
  auto bad = testing::makeDatagram(kRouterMac, kServerMac, 1, 9, "YACK");  // ack never sent
  transport.incoming.push_back(bad);
  server.pollOnce();
  EXPECT_TRUE(log.contains("bad packet received: \n"));
  EXPECT_TRUE(log.contains("Data: YACK\n"));
  clock.advanceMillis(1'000);
  server.pollOnce();
  EXPECT_EQ(status().status, kStatusFailed);
}

TEST_F(SessionTest, LoopWaitsAtMostASecondAndLessNearADeadline) {
  server.pollOnce();
  EXPECT_EQ(transport.waits.back(), 1'000'000u);
  server.start(request({}), true);
  clock.advanceMicros(kOfferTimeoutUs - 250'000);
  server.pollOnce();
  EXPECT_EQ(transport.waits.back(), 250'000u);
}

TEST_F(SessionTest, RebootOfReadyRouterMakesDoneSessionFirst) {
  testing::CapturedLog log;
  server.start(request({}), false);
  EXPECT_EQ(status().status, kStatusDone);
  EXPECT_TRUE(transport.sent.empty());
  server.reboot(kRouterMac);
  EXPECT_EQ(transport.lastPayload(), "TERM\nInstallation successful\n");
  EXPECT_EQ(status().statusText, "Sending reboot command...");
  EXPECT_EQ(status().status, kStatusDone);
  EXPECT_TRUE(log.contains("rebooting\n"));
  server.shutdown(kRouterMac);
  EXPECT_EQ(transport.lastPayload(), "TERM\nshutdown\n");
  EXPECT_EQ(status().statusText, "Sending shutdown command...");
  EXPECT_EQ(session()->deadline(), 0u);
}

TEST_F(SessionTest, FinishedSessionLogsNewDatagrams) {
  testing::CapturedLog log;
  server.start(request({}), false);
  say("RETR");
  EXPECT_TRUE(log.contains("finished\n"));
}

TEST_F(SessionTest, ModeAndAutorunAppendedAfterPackages) {
  std::string mode = dir.write("m.rsc", "m");
  scriptPath = dir.write("auto.scr", "");
  RouterRecord r = request({"a.npk"});
  r.defaultConfig = false;
  r.modeScriptEnabled = true;
  r.modeScriptPath = mode;
  server.start(r, true);
  ASSERT_EQ(scriptRequests.size(), 1u);
  ASSERT_EQ(scriptRequests[0].files.size(), 2u);
  EXPECT_EQ(scriptRequests[0].files[1], mode);
  EXPECT_EQ(session()->autorunPath(), scriptPath);
}

TEST_F(SessionTest, ScriptFailureFailsSession) {
  scriptFailure = "Could not open script file";
  server.start(request({}), true);
  EXPECT_EQ(status().status, kStatusFailed);
  EXPECT_EQ(status().statusText, "Installation failed: Could not open script file");
  EXPECT_TRUE(transport.sent.empty());
}

TEST_F(SessionTest, DestroyingSessionDeletesAutorunFile) {
  testing::CapturedLog log;
  scriptPath = dir.write("auto.scr", "x");
  server.start(request({}), true);
  server.remove(kRouterMac);
  EXPECT_FALSE(std::filesystem::exists(scriptPath));
  EXPECT_TRUE(log.contains("~Installator()\n"));
}

TEST_F(SessionTest, RemovalRequestedSessionGoesAtNextPass) {
  server.start(request({}), true);
  server.pollOnce();
  EXPECT_EQ(server.sessionCount(), 1u);
  server.requestRemoval(kRouterMac);
  server.pollOnce();
  EXPECT_EQ(server.sessionCount(), 0u);
}

TEST_F(SessionTest, TimeOutScanFollowsTheEarliestDeadline) {
  // Sessions are looked at only when a deadline may have passed; a
  // deadline that a datagram brought forward must still be kept.
  dir.write("a.npk", "abc");
  toTransfer(request({"a.npk"}));
  EXPECT_EQ(say("RETR"), "FILE\na.npk\n3\n");
  EXPECT_EQ(say("RETR"), "abc");
  EXPECT_EQ(say("RETR"), "");
  EXPECT_EQ(say("RETR"), "FILE\n");  // 30 s from now
  EXPECT_EQ(session()->state(), InstallState::AwaitTerminate);
  say("WTRM");  // 3 s from now
  clock.advanceMillis(2'999);
  server.pollOnce();
  EXPECT_EQ(session()->state(), InstallState::AwaitTerminate);
  EXPECT_LE(transport.waits.back(), 1000u);
  clock.advanceMillis(1);
  server.pollOnce();
  EXPECT_EQ(status().statusText, "Installation finished successfully");
}

TEST_F(SessionTest, StatusOfUnknownRouterIsZero) {
  SessionStatus s = status();
  EXPECT_EQ(s.status, 0u);
  EXPECT_EQ(s.statusText, "");
}

// A transport that takes every queued datagram in one batch and, while
// holding, notes only where each answer is: what is there at the flush goes.
class BatchingTransport : public FakeTransport {
 public:
  std::vector<std::pair<const uint8_t*, size_t>> held;
  bool holding = false;
  std::vector<std::vector<uint8_t>> lastBatch;
  int send(const uint8_t* buffer, size_t length) override {
    if (!holding) return FakeTransport::send(buffer, length);
    held.push_back({buffer, length});
    return static_cast<int>(length);
  }
  size_t receiveBatchSize() const override { return 16; }
  size_t waitReceiveBatch(uint8_t*, Received* received, size_t count, uint64_t) override {
    lastBatch.assign(incoming.begin(), incoming.begin() + static_cast<long>(std::min(count, incoming.size())));
    incoming.erase(incoming.begin(), incoming.begin() + static_cast<long>(lastBatch.size()));
    for (size_t i = 0; i < lastBatch.size(); ++i) received[i] = {lastBatch[i].data(), static_cast<int>(lastBatch[i].size())};
    if (lastBatch.empty()) received[0] = {nullptr, -1};
    return std::max<size_t>(lastBatch.size(), 1);
  }
  void holdSends() override { holding = true; }
  void flushSends() override {
    holding = false;
    for (const auto& [buffer, length] : held) FakeTransport::send(buffer, length);
    held.clear();
  }
};

TEST(SessionBatchTest, AnswersHeldInABatchLeaveBeforeTheSessionWritesAgain) {
  // "YACK" and "STRT" in one batch: both answers are empty datagrams built
  // in the session's one buffer. The first must leave as it was built.
  BatchingTransport transport;
  app::ManualClock clock;
  InstallServer server(transport, clock, [](const RouterRecord&, std::string&) { return std::string(); });
  RouterRecord r;
  r.mac = kRouterMac;
  r.defaultConfig = true;
  server.start(r, true);
  ASSERT_EQ(transport.sent.size(), 1u);
  ScriptedRouter router;
  router.heard(transport.sent.back());
  transport.incoming.push_back(router.next("YACK"));
  transport.incoming.push_back(router.next("STRT"));
  transport.incoming.push_back(router.next("RETR"));
  server.pollOnce();
  ASSERT_EQ(transport.sent.size(), 4u);
  EXPECT_EQ(sequenceOf(transport.sent[1].data()), 2);
  EXPECT_EQ(transport.sent[1].size(), kHeaderSize);
  EXPECT_EQ(sequenceOf(transport.sent[2].data()), 3);
  EXPECT_EQ(transport.sent[2].size(), kHeaderSize);
  EXPECT_EQ(sequenceOf(transport.sent[3].data()), 4);
  EXPECT_EQ(FakeTransport::payloadOf(transport.sent[3]), "FILE\n");
  EXPECT_FALSE(transport.holding);
}

TEST_F(SessionTest, LoopDropsMalformedAndZeroSourceDatagrams) {
  server.start(request({}), true);
  size_t before = transport.sent.size();
  auto zero = testing::makeDatagram(MacAddress{}, kServerMac, 1, 1, "YACK");
  transport.incoming.push_back(zero);
  server.pollOnce();
  auto shortOne = router.next("YACK");
  shortOne.pop_back();
  transport.incoming.push_back(shortOne);
  server.pollOnce();
  EXPECT_EQ(transport.sent.size(), before);
  EXPECT_EQ(session()->state(), InstallState::AwaitAccept);
}

TEST_F(SessionTest, ThreadRunsLoopUntilStopped) {
  server.setMaxWaitUs(1000);
  server.start();
  dir.write("a.npk", "abc");
  server.start(request({"a.npk"}), true);
  for (int i = 0; i < 2000 && transport.waitCalls.load() == 0; ++i) app::sleepMilliseconds(1);
  server.destroy();
  EXPECT_FALSE(server.running());
  EXPECT_GT(transport.waitCalls.load(), 0);
}

}  // namespace
}  // namespace tarnlift
