// The event ring: in order, never waiting for readers, and telling a reader
// that fell too far behind.
#include "web/event_hub.h"

#include <gtest/gtest.h>

#include <thread>

namespace tarnlift::web {
namespace {

TEST(EventHub, ReadersGetEventsInOrderFromWhereTheyStand) {
  EventHub hub;
  uint64_t start = hub.nextId();
  hub.publish("router", "{\"a\":1}");
  hub.publish("removed", "{\"b\":2}");
  std::vector<WebEvent> events;
  ASSERT_TRUE(hub.waitFrom(start, events, std::chrono::milliseconds(0)));
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].type, "router");
  EXPECT_EQ(events[1].type, "removed");
  EXPECT_EQ(events[1].id, events[0].id + 1);
  ASSERT_TRUE(hub.waitFrom(events[1].id + 1, events, std::chrono::milliseconds(10)));
  EXPECT_TRUE(events.empty());
}

TEST(EventHub, AReaderTooFarBehindIsTold) {
  EventHub hub(4);
  uint64_t start = hub.nextId();
  for (int i = 0; i < 10; ++i) hub.publish("log", "{}");
  std::vector<WebEvent> events;
  EXPECT_FALSE(hub.waitFrom(start, events, std::chrono::milliseconds(0)));
  EXPECT_TRUE(hub.waitFrom(hub.nextId() - 4, events, std::chrono::milliseconds(0)));
  EXPECT_EQ(events.size(), 4u);
}

TEST(EventHub, AWaitingReaderWakesOnPublish) {
  EventHub hub;
  uint64_t start = hub.nextId();
  std::thread publisher([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    hub.publish("router", "{}");
  });
  std::vector<WebEvent> events;
  auto before = std::chrono::steady_clock::now();
  ASSERT_TRUE(hub.waitFrom(start, events, std::chrono::seconds(10)));
  publisher.join();
  EXPECT_EQ(events.size(), 1u);
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
}

TEST(EventHub, FormatsServerSentEvents) {
  EXPECT_EQ(EventHub::format({7, "router", "{\"x\":1}"}), "id: 7\nevent: router\ndata: {\"x\":1}\n\n");
  EXPECT_EQ(EventHub::format({0, "log", "a\nb"}), "event: log\ndata: a\ndata: b\n\n");
}

}  // namespace
}  // namespace tarnlift::web
