// Defends event streams: each event once and in order, also after a break; what is missing is said, and so is that the
// stream lives.
#include "event_feed.h"

#include "monitor/fake_monitored.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using msgbus_monitor::EventFeed;
using testing::HasSubstr;
using testing::StartsWith;
using namespace std::literals;

constexpr auto KeepAlive = 10s;
constexpr const char* SignOfLife = ": keep-alive\n\n";

class EventFeedTest : public testing::Test {
protected:
    EventFeed Feed(std::optional<std::uint64_t> last) { return {monitored, last, KeepAlive}; }

    FakeMonitored monitored; ///< has the events 5 and 6
    EventFeed::Clock::time_point now = EventFeed::Clock::now();
};

TEST_F(EventFeedTest, Event_HasItsNumberItsKindAndItself) {
    auto feed = Feed(5);

    EXPECT_EQ(feed.Next(now), "id: 6\nevent: subscriber-cut\ndata: {\"number\":6,\"unix_ns\":1700000030000000000,"
                              "\"event\":\"subscriber-cut\",\"id\":18,\"name\":\"display\",\"pid\":4713,"
                              "\"program\":\"screen\",\"code\":0,\"lost\":12}\n\n");
}

TEST_F(EventFeedTest, WithoutANumber_BeginsWithTheNextEvent) {
    auto feed = Feed(std::nullopt);
    EXPECT_EQ(feed.Next(now), SignOfLife);

    monitored.AddEvent(7);

    EXPECT_THAT(feed.Next(now), StartsWith("id: 7\n"));
    EXPECT_EQ(feed.Next(now), "");
}

TEST_F(EventFeedTest, NumberOfAnotherServer_BeginsWithTheOldestThatIsKept) {
    auto feed = Feed(7);

    const std::string text = feed.Next(now);

    EXPECT_THAT(text, StartsWith("id: 5\n"));
    EXPECT_THAT(text, HasSubstr("\n\nid: 6\n"));
}

TEST_F(EventFeedTest, MissingEvents_AreCounted) {
    auto feed = Feed(2);

    EXPECT_THAT(feed.Next(now), StartsWith("event: lost\ndata: {\"count\":2}\n\nid: 5\n"));

    monitored.AddEvent(9);
    EXPECT_THAT(feed.Next(now), StartsWith("event: lost\ndata: {\"count\":2}\n\nid: 9\n"));
}

TEST_F(EventFeedTest, SilentStream_ShowsThatItLives) {
    auto feed = Feed(6);
    EXPECT_EQ(feed.Next(now), SignOfLife);
    EXPECT_EQ(feed.Next(now + KeepAlive - 1ms), "");
    EXPECT_EQ(feed.Next(now + KeepAlive), SignOfLife);
    EXPECT_EQ(feed.Next(now + KeepAlive + 1s), "");
}

TEST_F(EventFeedTest, NamesOfAnyBytes_DoNotBreakTheStream) {
    monitored.AddEvent(7, "a\n\ndata: x\r\xff");
    auto feed = Feed(6);

    const std::string text = feed.Next(now);

    EXPECT_THAT(text, HasSubstr(R"("name":"a\\n\\ndata: x\\x0d\\xff")"));
    EXPECT_EQ(text.find("\n\n"), text.size() - 2);
}

TEST_F(EventFeedTest, ServerWithoutEvents_HasNone) {
    monitored.Change([](FakeMonitored& fake) { fake.snapshot.events.clear(); });

    EXPECT_EQ(Feed(std::nullopt).Next(now), SignOfLife);
    EXPECT_EQ(Feed(0).Next(now), SignOfLife);
    EXPECT_EQ(Feed(17).Next(now), SignOfLife);
}

} // namespace
