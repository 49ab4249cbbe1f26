// The last values in memory: never more than the time and the room that there is, in order, with the notes between
// them.

#include "recordings/ring.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using recordings::Ring;
using Words = std::vector<std::string>;

const Ring::Clock::time_point Start = Ring::Clock::time_point() + 1000h;
constexpr std::uint64_t Plenty = 1 << 20;

class RingTest : public testing::Test {
protected:
    static void Add(Ring& ring, const std::string& topic, std::int64_t value, Ring::Clock::duration after = 0s) {
        ring.Add(topic, recording::Time(std::chrono::nanoseconds(value)), value, Start + after);
    }

    static Words Content(const Ring& ring) {
        Words content;
        ring.ForEach(
            [&content](const std::string& topic, recording::Time time, std::int64_t value) {
                EXPECT_EQ(time.time_since_epoch().count(), value);
                content.push_back(topic + ' ' + std::to_string(value));
            },
            [&content](const recording::Note& note) { content.push_back(note.name); });
        return content;
    }
};

TEST_F(RingTest, Values_StayForTheTime) {
    Ring ring(10s, Plenty);
    Add(ring, "a", 1);
    Add(ring, "b", 2, 5s);
    Add(ring, "a", 3, 10s);
    EXPECT_EQ(Content(ring), (Words{"a 1", "b 2", "a 3"}));
    Add(ring, "a", 4, 11s);
    EXPECT_EQ(Content(ring), (Words{"b 2", "a 3", "a 4"}));
    ring.DropOld(Start + 100s);
    EXPECT_EQ(Content(ring), Words{});
    EXPECT_EQ(ring.Bytes(), 0U);
    EXPECT_FALSE(ring.LacksRoom(Start + 100s));
    Add(ring, "c", 5, 100s);
    EXPECT_EQ(Content(ring), Words{"c 5"});
}

TEST_F(RingTest, ATopicWithoutValues_TakesNoRoom) {
    constexpr std::uint64_t room = 5 * (Ring::BytesPerValue + Ring::BytesPerTopic + 1);
    Ring ring(10s, room);
    for (int i = 0; i < 1000; ++i) {
        Add(ring, std::string(1, static_cast<char>('a' + i % 26)), i);
    }
    EXPECT_EQ(Content(ring), (Words{"h 995", "i 996", "j 997", "k 998", "l 999"}));
    EXPECT_EQ(ring.Bytes(), room);
    Add(ring, "l", 1000, 9s);
    Add(ring, "l", 1001, 11s);
    EXPECT_EQ(Content(ring), (Words{"l 1000", "l 1001"}));
    EXPECT_EQ(ring.Bytes(), 2 * Ring::BytesPerValue + Ring::BytesPerTopic + 1);
}

TEST_F(RingTest, WithoutRoom_TheOldestIsDropped_AndThatIsKnownForTheTime) {
    constexpr std::uint64_t room = 10 * Ring::BytesPerValue + Ring::BytesPerTopic + 1;
    Ring ring(10s, room);
    for (int value = 0; value < 10; ++value) {
        Add(ring, "a", value);
    }
    EXPECT_FALSE(ring.LacksRoom(Start));
    for (int value = 10; value < 1000; ++value) {
        Add(ring, "a", value, 1s);
        ASSERT_LE(ring.Bytes(), room);
    }
    EXPECT_EQ(ring.Size(), 10U);
    EXPECT_EQ(Content(ring).front(), "a 990");
    EXPECT_EQ(Content(ring).back(), "a 999");
    EXPECT_TRUE(ring.LacksRoom(Start + 11s));
    EXPECT_FALSE(ring.LacksRoom(Start + 12s));
}

TEST_F(RingTest, TheLastValue_IsKeptInAnyCase) {
    Ring ring(10s, 1);
    Add(ring, "a", 1);
    Add(ring, "a", 2);
    EXPECT_EQ(Content(ring), Words{"a 2"});
}

TEST_F(RingTest, Notes_KeepTheirPlaces_AndGoWithTheTime) {
    Ring ring(10s, Plenty);
    ring.Add({"first", {}}, Start);
    Add(ring, "a", 1);
    ring.Add({"second", {}}, Start + 5s);
    Add(ring, "a", 2, 5s);
    Add(ring, "a", 3, 6s);
    ring.Add({"last", {}}, Start + 6s);
    EXPECT_EQ(Content(ring), (Words{"first", "a 1", "second", "a 2", "a 3", "last"}));
    ring.DropOld(Start + 11s);
    EXPECT_EQ(Content(ring), (Words{"second", "a 2", "a 3", "last"}));
    ring.DropOld(Start + 16s);
    EXPECT_EQ(Content(ring), (Words{"a 3", "last"}));
}

TEST_F(RingTest, Notes_AreBoundedToo) {
    Ring ring(10s, Plenty);
    for (std::size_t number = 0; number < Ring::MostNotes + 5; ++number) {
        ring.Add({std::to_string(number), {}}, Start);
    }
    const Words content = Content(ring);
    EXPECT_EQ(content.size(), Ring::MostNotes);
    EXPECT_EQ(content.front(), "5");
}

} // namespace
