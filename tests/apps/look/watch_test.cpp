// Events as lines: one line each whatever the names are, and only what is known of an event is in it.

#include "look/watch.h"

#include "hand_made.h"

#include <gtest/gtest.h>

namespace {

TEST(WatchTest, EventText_WithAll_NamesAll) {
    auto event = hand_made::Event(1, hand_made::Now, instruments::EventKind::SubscriberDied);
    event.id = 4;
    event.code = -2;
    event.lost = 17;
    event.process = {500, 1, "my program"};
    event.name = "dis play\n";
    EXPECT_EQ(look::EventText(event, hand_made::ClockOffset),
              "2023-11-14T22:30:00.000Z subscriber-died id=4 pid=500 program=my\\x20program code=-2 lost=17 "
              "name=dis play\\n");
}

TEST(WatchTest, EventText_OfTheServer_IsTimeAndKind) {
    const auto event = hand_made::Event(1, hand_made::Now, instruments::EventKind::Draining);
    EXPECT_EQ(look::EventText(event, hand_made::ClockOffset), "2023-11-14T22:30:00.000Z draining");
}

} // namespace
