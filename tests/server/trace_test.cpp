// The way of single values through the bus: which values and copies a trace follows, and what it says of each step.

#include "account/trace.h"

#include <gtest/gtest.h>

namespace {

using msgbus_server::Trace;
using Step = Trace::Step;

constexpr std::int64_t Second = 1'000'000'000;
constexpr std::int64_t Begin = 1000 * Second;

class TraceTest : public testing::Test {
protected:
    void Push(std::uint64_t index, std::int64_t value, std::uint32_t subscribers = 1, std::string_view topic = "t") {
        trace.NotePushed(topic, index, 5, value, Begin + static_cast<std::int64_t>(index), subscribers);
    }

    Trace trace;
};

TEST_F(TraceTest, NothingIsOn_BeforeTheFirstStart) {
    EXPECT_FALSE(trace.IsOn());
    EXPECT_FALSE(trace.NoteQueued(1, 7, 1));
    trace.NoteFannedOut(1);
    trace.NoteLeft(Step::Taken, 7, 1, 1);
    trace.Retract(1);
    EXPECT_EQ(trace.Read(Begin).topic, "");
}

TEST_F(TraceTest, TheNextValuesOfTheTopic_AreFollowed) {
    ASSERT_TRUE(trace.Start("t", 2, Begin));
    Push(1, 10);
    Push(2, 20, 1, "other");
    Push(3, 30);
    Push(4, 40);
    const auto record = trace.Read(Begin);
    EXPECT_EQ(record.topic, "t");
    EXPECT_EQ(record.wanted, 2U);
    ASSERT_EQ(record.values.size(), 2U);
    EXPECT_EQ(record.values[0].value, 10);
    EXPECT_EQ(record.values[0].publisher, 5);
    EXPECT_EQ(record.values[0].pushedAt, Begin + 1);
    EXPECT_EQ(record.values[1].value, 30);
    EXPECT_FALSE(record.HasEnded());
}

TEST_F(TraceTest, StepsOfACopy_AreThoseOfItsNumber) {
    ASSERT_TRUE(trace.Start("t", 2, Begin));
    Push(11, 10, 2);
    Push(12, 20, 2);
    EXPECT_TRUE(trace.NoteQueued(11, 7, 101));
    EXPECT_TRUE(trace.NoteQueued(11, 8, 201));
    trace.NoteFannedOut(11);
    EXPECT_TRUE(trace.NoteQueued(12, 7, 102));
    trace.NoteLeft(Step::Taken, 7, 90, 12); // up to 101
    trace.NoteLeft(Step::Offered, 7, 102, 1);
    trace.NoteLeft(Step::Dropped, 8, 201, 5);
    const auto record = trace.Read(Begin);
    const auto& first = record.values[0];
    EXPECT_NE(first.fannedOutAt, 0);
    ASSERT_EQ(first.copies.size(), 2U);
    EXPECT_EQ(first.copies[0].subscriber, 7);
    EXPECT_NE(first.copies[0].queuedAt, 0);
    EXPECT_NE(first.copies[0].takenAt, 0);
    EXPECT_EQ(first.copies[0].offeredAt, 0);
    EXPECT_NE(first.copies[1].droppedAt, 0);
    EXPECT_TRUE(first.HasEnded());
    const auto& second = record.values[1];
    EXPECT_EQ(second.fannedOutAt, 0);
    ASSERT_EQ(second.copies.size(), 1U);
    EXPECT_NE(second.copies[0].offeredAt, 0);
    EXPECT_EQ(second.copies[0].takenAt, 0);
    EXPECT_FALSE(second.HasEnded());
}

TEST_F(TraceTest, ValuesOfOtherTopics_AreNotFollowedByTheEventsThread) {
    ASSERT_TRUE(trace.Start("t", 2, Begin));
    Push(3, 10);
    Push(5, 20);
    EXPECT_FALSE(trace.NoteQueued(2, 7, 1));
    EXPECT_TRUE(trace.NoteQueued(3, 7, 2));
    EXPECT_FALSE(trace.NoteQueued(4, 7, 3));
    EXPECT_TRUE(trace.NoteQueued(5, 7, 4));
    EXPECT_FALSE(trace.NoteQueued(6, 7, 5));
}

TEST_F(TraceTest, AValueWithoutSubscribers_HasEndedWithItsPush) {
    ASSERT_TRUE(trace.Start("t", 1, Begin));
    Push(1, 10, 0);
    EXPECT_TRUE(trace.Read(Begin).HasEnded());
}

TEST_F(TraceTest, APushThatFailed_IsForgotten) {
    ASSERT_TRUE(trace.Start("t", 2, Begin));
    Push(1, 10);
    trace.Retract(1);
    Push(1, 20);
    trace.Retract(9); // of another topic
    const auto record = trace.Read(Begin);
    ASSERT_EQ(record.values.size(), 1U);
    EXPECT_EQ(record.values[0].value, 20);
}

TEST_F(TraceTest, AfterADropFromBehind_TheSubscribersUnreadCopiesAreUncertain) {
    ASSERT_TRUE(trace.Start("t", 2, Begin));
    Push(1, 10, 2);
    EXPECT_TRUE(trace.NoteQueued(1, 7, 1));
    EXPECT_TRUE(trace.NoteQueued(1, 8, 1));
    Push(2, 20, 1);
    EXPECT_TRUE(trace.NoteQueued(2, 7, 2));
    trace.NoteLeft(Step::Taken, 7, 1, 1);
    trace.NoteLeft(Step::DroppedFromBehind, 7, 2, 1);
    const auto record = trace.Read(Begin);
    EXPECT_FALSE(record.values[0].copies[0].isUncertain); // it had been taken
    EXPECT_FALSE(record.values[0].copies[1].isUncertain); // another subscriber's
    EXPECT_TRUE(record.values[1].copies[0].isUncertain);
}

TEST_F(TraceTest, OneTraceAtATime_UnlessItsReaderHasGone) {
    ASSERT_TRUE(trace.Start("t", 1, Begin));
    EXPECT_FALSE(trace.Start("u", 1, Begin + 9 * Second));
    trace.Read(Begin + 9 * Second);
    EXPECT_FALSE(trace.Start("u", 1, Begin + 18 * Second));
    EXPECT_TRUE(trace.Start("u", 1, Begin + 19 * Second));
    trace.Stop();
    EXPECT_TRUE(trace.Start("v", 1, Begin + 19 * Second));
}

TEST_F(TraceTest, WithoutAReader_APushEndsIt) {
    ASSERT_TRUE(trace.Start("t", 1, Begin));
    trace.NotePushed("t", 1, 5, 10, Begin + 10 * Second, 1);
    EXPECT_FALSE(trace.IsOn());
    EXPECT_TRUE(trace.Read(Begin).values.empty());
}

TEST_F(TraceTest, AnotherTrace_HasNothingOfTheOneBefore) {
    ASSERT_TRUE(trace.Start("t", 1, Begin));
    Push(1, 10);
    EXPECT_TRUE(trace.NoteQueued(1, 7, 1));
    trace.Stop();
    ASSERT_TRUE(trace.Start("t", 1, Begin));
    EXPECT_TRUE(trace.Read(Begin).values.empty());
    Push(2, 20);
    EXPECT_TRUE(trace.NoteQueued(2, 7, 2));
    const auto record = trace.Read(Begin);
    ASSERT_EQ(record.values.size(), 1U);
    EXPECT_EQ(record.values[0].value, 20);
    EXPECT_EQ(record.values[0].copies.size(), 1U);
}

TEST_F(TraceTest, StepsWithoutRoom_AreCounted) {
    ASSERT_TRUE(trace.Start("t", 1, Begin));
    Push(1, 10, 20'000);
    for (long subscriber = 1; subscriber <= 20'000; ++subscriber) {
        EXPECT_TRUE(trace.NoteQueued(1, subscriber, 1));
    }
    const auto record = trace.Read(Begin);
    EXPECT_EQ(record.values[0].copies.size(), Trace::MostSteps);
    EXPECT_EQ(record.lostSteps, 20'000 - Trace::MostSteps);
    trace.Stop();
    ASSERT_TRUE(trace.Start("t", 1, Begin));
    EXPECT_EQ(trace.Read(Begin).lostSteps, 0U);
}

TEST_F(TraceTest, MoreValuesThanThereIsRoomFor_AreNotWanted) {
    ASSERT_TRUE(trace.Start("t", 1'000'000, Begin));
    for (std::uint64_t index = 1; index <= 2000; ++index) {
        Push(index, 1);
    }
    EXPECT_EQ(trace.Read(Begin).wanted, Trace::MostValues);
    EXPECT_EQ(trace.Read(Begin).values.size(), Trace::MostValues);
}

} // namespace
