// The event ring: in order, never waiting for readers, bounded in count and
// in bytes, with the newest state of every router kept; and one client's
// stream over it: the present first, then the events, a resync for a client
// that fell behind its byte budget, keep-alive comments, and its end.
#include "web/event_hub.h"

#include <gtest/gtest.h>

namespace tarnlift::web {
namespace {

TEST(EventHub, ReadersGetEventsInOrderFromWhereTheyStand) {
  EventHub hub;
  uint64_t start = hub.nextId();
  hub.publish("router", "{\"a\":1}");
  hub.publish("removed", "{\"b\":2}");
  std::vector<WebEvent> events;
  ASSERT_TRUE(hub.eventsFrom(start, events));
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].type, "router");
  EXPECT_EQ(events[1].type, "removed");
  EXPECT_EQ(events[1].id, events[0].id + 1);
  ASSERT_TRUE(hub.eventsFrom(events[1].id + 1, events));
  EXPECT_TRUE(events.empty());
}

TEST(EventHub, AReaderTooFarBehindIsTold) {
  EventHub hub(4);
  uint64_t start = hub.nextId();
  for (int i = 0; i < 10; ++i) hub.publish("log", "{}");
  std::vector<WebEvent> events;
  EXPECT_FALSE(hub.eventsFrom(start, events));
  EXPECT_EQ(hub.bytesFrom(start), SIZE_MAX);
  EXPECT_TRUE(hub.eventsFrom(hub.nextId() - 4, events));
  EXPECT_EQ(events.size(), 4u);
}

TEST(EventHub, TheRingIsCappedInBytesAsWellAsInCount) {
  EventHub hub(2048, 64 * 1024);
  const std::string big(10 * 1024, 'x');
  for (int i = 0; i < 100; ++i) hub.publish("router", big);
  EXPECT_LE(hub.bytes(), 64u * 1024);
  EXPECT_EQ(hub.size(), 3u) << "each event is held twice, as sent and as formatted";
  // One event bigger than the whole cap still goes out.
  hub.publish("router", std::string(100 * 1024, 'y'));
  EXPECT_EQ(hub.size(), 1u);
  std::vector<WebEvent> events;
  ASSERT_TRUE(hub.eventsFrom(hub.nextId() - 1, events));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].data.size(), 100u * 1024);
}

TEST(EventHub, ReadsAreLimitedInBytesAndSayHowFarBehindAReaderIs) {
  EventHub hub;
  uint64_t start = hub.nextId();
  for (int i = 0; i < 10; ++i) hub.publish("log", std::string(1000, 'a'));
  EXPECT_GE(hub.bytesFrom(start), 10000u);
  EXPECT_LT(hub.bytesFrom(start), 11000u);
  EXPECT_EQ(hub.bytesFrom(hub.nextId()), 0u);
  std::vector<WebEvent> events;
  ASSERT_TRUE(hub.eventsFrom(start, events, 3000));
  EXPECT_EQ(events.size(), 2u);
  ASSERT_TRUE(hub.eventsFrom(start, events, 1));
  EXPECT_EQ(events.size(), 1u) << "at least one event, however small the room";
}

TEST(EventHub, KeepsTheNewestStateOfEachKey) {
  EventHub hub;
  hub.publishState("router", "A", "{\"a\":1}");
  hub.publishState("router", "B", "{\"b\":1}");
  hub.publishState("router", "A", "{\"a\":2}");
  hub.publish("log", "{}");
  uint64_t next = 0;
  std::vector<WebEvent> state = hub.snapshot(next);
  ASSERT_EQ(state.size(), 2u);
  EXPECT_EQ(state[0].data, "{\"a\":2}");
  EXPECT_EQ(state[1].data, "{\"b\":1}");
  EXPECT_EQ(state[0].id, 0u);
  EXPECT_EQ(next, hub.nextId());
  hub.publishRemoval("removed", "A", "{\"mac\":\"A\"}");
  state = hub.snapshot(next);
  ASSERT_EQ(state.size(), 1u);
  EXPECT_EQ(state[0].data, "{\"b\":1}");
}

TEST(EventHub, FormatsServerSentEvents) {
  EXPECT_EQ(EventHub::format({7, "router", "{\"x\":1}"}), "id: 7\nevent: router\ndata: {\"x\":1}\n\n");
  EXPECT_EQ(EventHub::format({0, "log", "a\nb"}), "event: log\ndata: a\ndata: b\n\n");
}

class EventStreamTest : public ::testing::Test {
 protected:
  EventHub hub{2048, 1024 * 1024};
  app::ManualClock clock{1'000'000};

  static size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
  }
};

TEST_F(EventStreamTest, StartsWithThePresentThenFollowsTheEvents) {
  hub.publishState("router", "A", "{\"a\":1}");
  hub.publish("log", "{\"line\":\"before\"}");
  EventStream stream(hub, clock, nullptr, {});
  std::string out;
  ASSERT_TRUE(stream.pull(out, 65536));
  EXPECT_EQ(out, "retry: 2000\n\nevent: router\ndata: {\"a\":1}\n\n") << "the present, not the old log line";
  out.clear();
  ASSERT_TRUE(stream.pull(out, 65536));
  EXPECT_TRUE(out.empty());
  hub.publishState("router", "A", "{\"a\":2}");
  ASSERT_TRUE(stream.pull(out, 65536));
  EXPECT_NE(out.find("data: {\"a\":2}"), std::string::npos) << out;
  EXPECT_NE(out.find("id: "), std::string::npos);
}

TEST_F(EventStreamTest, SaysItIsAliveWhenNothingHappens) {
  EventStream stream(hub, clock, nullptr, {200, 1024 * 1024});
  std::string out;
  stream.pull(out, 65536);
  out.clear();
  clock.advanceMillis(150);
  stream.pull(out, 65536);
  EXPECT_TRUE(out.empty());
  clock.advanceMillis(60);
  stream.pull(out, 65536);
  EXPECT_EQ(out, ": keep-alive\n\n");
}

TEST_F(EventStreamTest, AClientBehindItsBudgetIsResynchronisedNotBuffered) {
  EventStream stream(hub, clock, nullptr, {15000, 64 * 1024});
  std::string out;
  stream.pull(out, 65536);
  out.clear();
  // The client takes nothing while 200 KiB of events go by.
  const std::string keys[] = {"R0", "R1", "R2", "R3", "R4"};
  for (int i = 0; i < 200; ++i)
    hub.publishState("router", keys[i % 5], std::string(1000, static_cast<char>('a' + i % 5)));
  ASSERT_TRUE(stream.pull(out, 65536));
  EXPECT_EQ(out.rfind("event: resync\ndata: {}\n\n", 0), 0u);
  EXPECT_EQ(count(out, "event: router"), 5u) << "the present state of the five routers, not the backlog";
  EXPECT_LT(out.size(), 6000u);
  // From there on it follows as before.
  out.clear();
  hub.publishState("router", "R0", "{\"new\":1}");
  ASSERT_TRUE(stream.pull(out, 65536));
  EXPECT_EQ(count(out, "event: router"), 1u);
  EXPECT_EQ(out.find("resync"), std::string::npos);
}

TEST_F(EventStreamTest, AClientWithinItsBudgetGetsEverythingInPieces) {
  EventStream stream(hub, clock, nullptr, {15000, 512 * 1024});
  std::string out;
  stream.pull(out, 65536);
  out.clear();
  for (int i = 0; i < 200; ++i) hub.publish("log", std::string(1000, 'x'));
  size_t events = 0;
  for (int piece = 0; piece < 10; ++piece) {
    std::string part;
    ASSERT_TRUE(stream.pull(part, 65536));
    EXPECT_LE(part.size(), 70000u);
    EXPECT_EQ(part.find("resync"), std::string::npos);
    events += count(part, "event: log");
  }
  EXPECT_EQ(events, 200u);
}

TEST_F(EventStreamTest, EndsWhenToldOrWhenItsSessionIsGone) {
  bool sessionAlive = true;
  EventStream stream(hub, clock, [&] { return sessionAlive; }, {});
  std::string out;
  EXPECT_TRUE(stream.pull(out, 65536));
  sessionAlive = false;
  EXPECT_FALSE(stream.pull(out, 65536));
  EventStream other(hub, clock, nullptr, {});
  EXPECT_TRUE(other.pull(out, 65536));
  other.end();
  EXPECT_FALSE(other.pull(out, 65536));
}

}  // namespace
}  // namespace tarnlift::web
