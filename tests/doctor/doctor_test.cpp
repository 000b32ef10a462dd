// The doctor's readings on their own: the kernel's UDP table, the firewall
// ruleset, probe answers, the interface check and the finding lines.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "cli/firewall_rules.h"
#include "doctor/checks.h"
#include "doctor/findings.h"
#include "doctor/probe.h"
#include "doctor/udp_ports.h"
#include "tests/netboot/fake_interfaces.h"

namespace tarnlift::doctor {
namespace {

TEST(ProcNetUdpTest, ReadsAddressPortAndInodeOfEachLine) {
  const std::string table =
      "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode ref pointer drops\n"
      "  123: 00000000:0043 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 40123 2 0000000000000000 0\n"
      "  124: 0258A8C0:0045 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 40124 2 0000000000000000 0\n"
      "  garbage line\n";
  std::vector<ProcUdpLine> lines = parseProcNetUdp(table);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].address, 0u);
  EXPECT_EQ(lines[0].port, 67);
  EXPECT_EQ(lines[0].inode, 40123u);
  EXPECT_EQ(net::formatIpv4(lines[1].address), "192.168.88.2");
  EXPECT_EQ(lines[1].port, 69);
}

TEST(UdpPortsTest, OnlyBindingsOnTheServedAddressOrEveryAddressAreInTheWay) {
  uint32_t served = net::parseIpv4("192.168.88.2");
  std::vector<UdpBinding> all = {{0, 67, {{812, "dnsmasq"}}},
                                 {net::parseIpv4("10.0.0.1"), 67, {{900, "other"}}},
                                 {served, 67, {{0, ""}}}};
  std::vector<UdpBinding> inTheWay = bindingsInTheWay(all, served);
  ASSERT_EQ(inTheWay.size(), 2u);
  EXPECT_EQ(holdersText(inTheWay[0]), "dnsmasq (PID 812)");
  EXPECT_EQ(holdersText(inTheWay[1]), "an unknown program");
  EXPECT_EQ(stopAdvice(inTheWay[0], 67).rfind("stop dnsmasq (PID 812)", 0), 0u);
  UdpBinding ours{0, 69, {{77, "tarnlift"}}};
  EXPECT_NE(stopAdvice(ours, 69).find("another Tarnlift server"), std::string::npos);
}

TEST(FindingsTest, LinesStartWithTheLevelAndCarryTheFixOnlyWhenThereIsOne) {
  EXPECT_EQ(findingLine({Level::Ok, "port 67/udp", "free", ""}), "ok   port 67/udp: free");
  EXPECT_EQ(findingLine({Level::Fail, "privileges", "missing X", "grant X"}), "fail privileges: missing X; fix: grant X");
  EXPECT_EQ(findingLine({Level::Warn, "probe", "a", "b"}), "warn probe: a; fix: b");
  EXPECT_FALSE(anyFailed({{Level::Ok, "a", "", ""}, {Level::Warn, "b", "", ""}}));
  EXPECT_TRUE(anyFailed({{Level::Ok, "a", "", ""}, {Level::Fail, "b", "", ""}}));
}

TEST(ProbeTest, TheDiscoverAsksForABroadcastAnswerFromOurAddress) {
  net::MacAddress mac{0x02, 0, 0x5E, 1, 2, 3};
  std::vector<uint8_t> d = makeDiscover(mac, 0x11223344);
  ASSERT_EQ(d.size(), 300u);
  EXPECT_EQ(d[0], 1);
  EXPECT_EQ(d[4], 0x11);
  EXPECT_EQ(d[10], 0x80);
  EXPECT_EQ(std::vector<uint8_t>(d.begin() + 28, d.begin() + 34), std::vector<uint8_t>(mac.begin(), mac.end()));
  EXPECT_EQ(d[240], 53);
  EXPECT_EQ(d[242], 1);
}

TEST(ProbeTest, AnAnswerGivesTheServerIdentifierOfferAndBootFile) {
  net::MacAddress mac{0x02, 0, 0x5E, 1, 2, 3};
  std::vector<uint8_t> reply = makeDiscover(mac, 7);
  reply[0] = 2;
  uint32_t offered = net::parseIpv4("192.168.88.120");
  std::memcpy(&reply[16], &offered, 4);
  std::memcpy(&reply[108], "boot.efi", 8);
  const uint8_t options[] = {53, 1, 2, 54, 4, 192, 168, 88, 3, 255};
  std::memcpy(&reply[240], options, sizeof options);
  ProbeAnswer a;
  ASSERT_TRUE(parseProbeAnswer(reply.data(), reply.size(), 7, mac, net::parseIpv4("192.168.88.9"), a));
  EXPECT_EQ(net::formatIpv4(a.server), "192.168.88.3");
  EXPECT_EQ(net::formatIpv4(a.offered), "192.168.88.120");
  EXPECT_EQ(a.bootFile, "boot.efi");
  // Another transaction, another client, a request, or a cut datagram.
  EXPECT_FALSE(parseProbeAnswer(reply.data(), reply.size(), 8, mac, 0, a));
  net::MacAddress other{0x02, 0, 0x5E, 1, 2, 4};
  EXPECT_FALSE(parseProbeAnswer(reply.data(), reply.size(), 7, other, 0, a));
  EXPECT_FALSE(parseProbeAnswer(reply.data(), 100, 7, mac, 0, a));
  reply[0] = 1;
  EXPECT_FALSE(parseProbeAnswer(reply.data(), reply.size(), 7, mac, 0, a));
  // Options cut short are read as far as they go, without a crash.
  for (size_t length = 236; length < 252; ++length) {
    reply[0] = 2;
    EXPECT_TRUE(parseProbeAnswer(reply.data(), length, 7, mac, 9, a));
  }
}

// An offer of `offered` from `server` to the probe `xid` of `mac`.
std::vector<uint8_t> offerFrom(const net::MacAddress& mac, uint32_t xid, const char* server, const char* offered) {
  std::vector<uint8_t> reply = makeDiscover(mac, xid);
  reply[0] = 2;
  uint32_t address = net::parseIpv4(offered);
  std::memcpy(&reply[16], &address, 4);
  uint32_t id = net::parseIpv4(server);
  const uint8_t options[] = {53, 1, 2, 54, 4, 0, 0, 0, 0, 255};
  std::memcpy(&reply[240], options, sizeof options);
  std::memcpy(&reply[245], &id, 4);
  return reply;
}

// The segment in test time: each server answers each DHCPDISCOVER after its
// own delay (a server that pings first answers seconds later).
class ScriptedSegment : public ProbeChannel {
 public:
  struct Server {
    const char* address;
    const char* offered;
    int delayMillis;
    bool macInFrame;
  };
  ScriptedSegment(app::ManualClock& clock, net::MacAddress mac, uint32_t xid, std::vector<Server> servers)
      : clock_(clock), start_(clock.nowMicros()), mac_(mac), xid_(xid), servers_(std::move(servers)) {}

  bool send(const std::vector<uint8_t>& discover, std::string& why) override {
    if (failSends) {
      why = "cannot send the probe: Network is down";
      return false;
    }
    sentAt.push_back(nowMillis());
    EXPECT_EQ(discover, makeDiscover(mac_, xid_));
    for (const Server& s : servers_) pending_.push_back({nowMillis() + s.delayMillis, &s});
    return true;
  }
  bool receive(int waitMillis, ProbeDatagram& datagram) override {
    EXPECT_GT(waitMillis, 0);
    EXPECT_LE(waitMillis, 250);
    int until = nowMillis() + waitMillis;
    auto next = std::min_element(pending_.begin(), pending_.end(),
                                 [](const Pending& a, const Pending& b) { return a.at < b.at; });
    if (next == pending_.end() || next->at > until) {
      clock_.setMicros(start_ + static_cast<uint64_t>(until) * 1000);
      return false;
    }
    clock_.setMicros(start_ + static_cast<uint64_t>(next->at) * 1000);
    const Server& s = *next->server;
    pending_.erase(next);
    datagram.bytes = offerFrom(mac_, xid_, s.address, s.offered);
    datagram.source = net::parseIpv4(s.address);
    datagram.macKnown = s.macInFrame;
    if (s.macInFrame) datagram.sourceMac = {0x02, 0xEE, 0, 0, 0, 1};
    return true;
  }
  bool lookUpMac(uint32_t address, net::MacAddress& mac) override {
    looked.push_back(net::formatIpv4(address));
    mac = {0x02, 0xEE, 0, 0, 0, 2};
    return true;
  }
  int nowMillis() const { return static_cast<int>((clock_.nowMicros() - start_) / 1000); }

  std::vector<int> sentAt;
  std::vector<std::string> looked;
  bool failSends = false;

 private:
  struct Pending {
    int at;
    const Server* server;
  };
  app::ManualClock& clock_;
  uint64_t start_;
  net::MacAddress mac_;
  uint32_t xid_;
  std::vector<Server> servers_;
  std::vector<Pending> pending_;
};

TEST(ProbeTest, DiscoversGoOutAt0And4SecondsThenAsDhcpClientsRetransmit) {
  EXPECT_EQ(discoverTimes(kProbeMillis), (std::vector<int>{0, 4000}));
  EXPECT_EQ(discoverTimes(1000), (std::vector<int>{0}));
  EXPECT_EQ(discoverTimes(7999), (std::vector<int>{0}));
  EXPECT_EQ(discoverTimes(15999), (std::vector<int>{0, 4000}));
  EXPECT_EQ(discoverTimes(16000), (std::vector<int>{0, 4000, 12000}));
  EXPECT_EQ(discoverTimes(300000), (std::vector<int>{0, 4000, 12000, 28000, 60000, 124000, 188000, 252000}));
}

// A server that pings before it offers answers 3 s after each DHCPDISCOVER:
// the probe hears it (once), and every other server that answers before the
// end, and none after.
TEST(ProbeTest, ListensUntilFourSecondsAfterTheSecondDiscover) {
  app::ManualClock clock;
  net::MacAddress mac{0x02, 0, 0x5E, 1, 2, 3};
  ScriptedSegment segment(clock, mac, 42,
                          {{"192.168.88.1", "192.168.88.100", 3030, true},
                           {"192.168.88.7", "192.168.88.200", 3500, false},
                           {"192.168.88.9", "192.168.88.50", 4100, true}});
  std::vector<ProbeAnswer> answers;
  std::vector<ProbeProgress> shown;
  std::string why;
  ASSERT_TRUE(runProbe(segment, clock, mac, 42, kProbeMillis, answers, why,
                       [&shown](const ProbeProgress& p) { shown.push_back(p); }));
  EXPECT_EQ(segment.sentAt, (std::vector<int>{0, 4000}));
  EXPECT_EQ(segment.nowMillis(), 8000);
  // The third server answers the first DHCPDISCOVER at 4.1 s, the second
  // one only after the end (8.1 s): once.
  ASSERT_EQ(answers.size(), 3u);
  EXPECT_EQ(net::formatIpv4(answers[0].server), "192.168.88.1");
  EXPECT_EQ(net::formatIpv4(answers[0].offered), "192.168.88.100");
  EXPECT_EQ(answers[0].afterMillis, 3030);
  EXPECT_TRUE(answers[0].macKnown);
  EXPECT_EQ(answers[1].afterMillis, 3500);
  EXPECT_TRUE(answers[1].macKnown);
  EXPECT_EQ(answers[1].serverMac, (net::MacAddress{0x02, 0xEE, 0, 0, 0, 2}));
  EXPECT_EQ(answers[2].afterMillis, 4100);
  // The address of a server whose frame did not carry its MAC is looked up once.
  EXPECT_EQ(segment.looked, std::vector<std::string>{"192.168.88.7"});
  // Progress at least every 250 ms, ending with the whole picture.
  ASSERT_GE(shown.size(), 32u);
  for (size_t i = 1; i < shown.size(); ++i) EXPECT_LE(shown[i].elapsedMillis - shown[i - 1].elapsedMillis, 250);
  EXPECT_EQ(probeProgressLine(shown.back()), "probe: listening 8 of 8 s, DHCPDISCOVER 2 of 2 sent, 3 answers");
  EXPECT_EQ(probeProgressLine(shown.front()), "probe: listening 0 of 8 s, DHCPDISCOVER 1 of 2 sent, 0 answers");
}

TEST(ProbeTest, AShorterProbeSendsOnceAndMissesTheLateServer) {
  app::ManualClock clock;
  net::MacAddress mac{0x02, 0, 0x5E, 1, 2, 3};
  ScriptedSegment segment(clock, mac, 5, {{"192.168.88.1", "192.168.88.100", 3030, true}});
  std::vector<ProbeAnswer> answers;
  std::string why;
  ASSERT_TRUE(runProbe(segment, clock, mac, 5, 3000, answers, why));
  EXPECT_EQ(segment.sentAt, std::vector<int>{0});
  EXPECT_TRUE(answers.empty());
  EXPECT_EQ(probeFindings(answers, 3000)[0].found,
            "no other BOOTP/DHCP server answered within 3 s (DHCPDISCOVER sent at 0 s)");
  EXPECT_EQ(probeFindings(answers, kProbeMillis)[0].found,
            "no other BOOTP/DHCP server answered within 8 s (DHCPDISCOVER sent at 0, 4 s)");
  segment.failSends = true;
  EXPECT_FALSE(runProbe(segment, clock, mac, 5, kProbeMillis, answers, why));
  EXPECT_EQ(why, "cannot send the probe: Network is down");
}

TEST(ProbeTest, AFoundServerSaysWhenItAnswered) {
  ProbeAnswer a;
  a.server = net::parseIpv4("192.168.88.1");
  a.offered = net::parseIpv4("192.168.88.129");
  a.bootFile = "other.efi";
  a.afterMillis = 3034;
  std::vector<Finding> f = probeFindings({a}, kProbeMillis);
  ASSERT_EQ(f.size(), 1u);
  EXPECT_EQ(f[0].level, Level::Warn);
  EXPECT_EQ(f[0].found,
            "another boot server on this segment: 192.168.88.1 (MAC not known), offered 192.168.88.129, boot file "
            "'other.efi', answered after 3.0 s");
}

TEST(InterfaceCheckTest, FindsTheAdapterOfTheClientsSubnetOrListsWhatExists) {
  netboot::testing::FakeInterfaceSource source;
  source.addAdapter("wan", "10.0.0.2", "255.255.255.0").name = "eth0";
  source.addAdapter("lan", "192.168.88.2", "255.255.255.0").name = "eth1";
  ServedCandidate candidate;
  Finding f = checkInterface(source, net::parseIpv4("192.168.88.1"), "", candidate);
  EXPECT_TRUE(candidate.found);
  EXPECT_EQ(candidate.name, "eth1");
  EXPECT_EQ(f.found.rfind("eth1 192.168.88.2/24", 0), 0u);
  Finding none = checkInterface(source, net::parseIpv4("172.16.0.1"), "", candidate);
  EXPECT_EQ(none.level, Level::Fail);
  EXPECT_NE(none.found.find("the addresses that exist: eth0 10.0.0.2/24, eth1 192.168.88.2/24"), std::string::npos);
  // Limited to another interface: not found there.
  checkInterface(source, net::parseIpv4("192.168.88.1"), "eth0", candidate);
  EXPECT_FALSE(candidate.found);
  Finding noClient = checkInterface(source, 0, "", candidate);
  EXPECT_EQ(noClient.level, Level::Warn);
}

std::string ruleset(const std::string& chainPolicy, const std::string& rules) {
  return R"({"nftables":[{"metainfo":{"json_schema_version":1}},{"table":{"family":"inet","name":"f","handle":1}},)"
         R"({"chain":{"family":"inet","table":"f","name":"input","handle":1,"type":"filter","hook":"input","prio":0,"policy":")" +
         chainPolicy + R"("}})" + rules + "]}";
}

std::string rule(int handle, const std::string& exprs) {
  return R"(,{"rule":{"family":"inet","table":"f","chain":"input","handle":)" + std::to_string(handle) +
         R"(,"expr":[)" + exprs + "]}}";
}

const std::string kUdpDport = R"({"match":{"op":"==","left":{"payload":{"protocol":"udp","field":"dport"}},"right":)";

TEST(FirewallRulesTest, ADropOfOneOfOurPortsIsNamedWithItsRule) {
  std::vector<cli::FirewallBlock> blocks;
  std::string why;
  ASSERT_TRUE(cli::findBlockingRules(ruleset("accept", rule(4, kUdpDport + R"(69}},{"drop":null})")), "eth1",
                                     {67, 69, 5000}, blocks, why));
  ASSERT_EQ(blocks.size(), 1u);
  EXPECT_EQ(blocks[0].portsText, "69");
  EXPECT_EQ(blocks[0].where, "inet f input");
  EXPECT_NE(blocks[0].description.find("rule 4 of inet f input"), std::string::npos);
}

TEST(FirewallRulesTest, SetsRangesTcpOtherInterfacesAndEarlierAccepts) {
  std::vector<cli::FirewallBlock> blocks;
  std::string why;
  // A set and a range.
  ASSERT_TRUE(cli::findBlockingRules(
      ruleset("accept", rule(5, kUdpDport + R"({"set":[67,{"range":[4000,6000]}]}}},{"reject":null})")), "eth1",
      {67, 69, 5000}, blocks, why));
  ASSERT_EQ(blocks.size(), 1u);
  EXPECT_EQ(blocks[0].portsText, "67, 5000");
  // TCP only: not ours.
  const std::string tcp = R"({"match":{"op":"==","left":{"payload":{"protocol":"tcp","field":"dport"}},"right":69}},{"drop":null})";
  ASSERT_TRUE(cli::findBlockingRules(ruleset("accept", rule(6, tcp)), "eth1", {69}, blocks, why));
  EXPECT_TRUE(blocks.empty());
  // Tied to another interface.
  const std::string other = R"({"match":{"op":"==","left":{"meta":{"key":"iifname"}},"right":"eth0"}},)" + kUdpDport +
                            R"(69}},{"drop":null})";
  ASSERT_TRUE(cli::findBlockingRules(ruleset("accept", rule(7, other)), "eth1", {69}, blocks, why));
  EXPECT_TRUE(blocks.empty());
  // Accepted before the drop.
  ASSERT_TRUE(cli::findBlockingRules(
      ruleset("accept", rule(8, kUdpDport + R"(69}},{"accept":null})") + rule(9, R"({"drop":null})")), "eth1",
      {67, 69}, blocks, why));
  ASSERT_EQ(blocks.size(), 1u);
  EXPECT_EQ(blocks[0].portsText, "67");
}

TEST(FirewallRulesTest, ADropPolicyWithoutAnAcceptIsNamedAndGarbageIsNotAGuess) {
  std::vector<cli::FirewallBlock> blocks;
  std::string why;
  ASSERT_TRUE(cli::findBlockingRules(ruleset("drop", rule(3, kUdpDport + R"(67}},{"accept":null})")), "eth1",
                                     {67, 69}, blocks, why));
  ASSERT_EQ(blocks.size(), 1u);
  EXPECT_EQ(blocks[0].portsText, "69");
  EXPECT_NE(blocks[0].description.find("policy"), std::string::npos);
  EXPECT_FALSE(cli::findBlockingRules("not json", "eth1", {69}, blocks, why));
  EXPECT_FALSE(cli::findBlockingRules(R"({"other":1})", "eth1", {69}, blocks, why));
  ASSERT_TRUE(cli::findBlockingRules(R"({"nftables":[]})", "eth1", {69}, blocks, why));
  EXPECT_TRUE(blocks.empty());
}

}  // namespace
}  // namespace tarnlift::doctor
