// Defends the numbers of one publisher: what was accepted and what was not, and the time between its values.
#include "account/publisher_entry.h"

#include <gtest/gtest.h>

namespace {

using msgbus_server::PublisherEntry;

constexpr std::int64_t Begin = 1'000'000'000'000; ///< a thousand seconds

class PublisherEntryTest : public testing::Test {
protected:
    instruments::layout::PublisherFlow Written() const { return slot.flow.Read(); }

    instruments::layout::Publisher slot;
    PublisherEntry entry{slot};
};

TEST_F(PublisherEntryTest, Gaps_AreTheSmallestAndTheLargest) {
    entry.Begin(Begin, false);
    for (const std::int64_t time : {500, 520, 530, 570}) {
        entry.NoteAccepted(1, Begin + time, true);
    }
    EXPECT_EQ(Written().smallestGap, 10);
    EXPECT_EQ(Written().largestGap, 40);
}

TEST_F(PublisherEntryTest, AValueThatWasRetracted_IsNoLastOneAndBeginsNoGap) {
    entry.Begin(Begin, false);
    entry.NoteAccepted(1, Begin + 500, true);
    entry.NoteAccepted(2, Begin + 501, false);
    entry.Retract(false);
    EXPECT_EQ(Written().accepted, 1U);
    EXPECT_EQ(Written().withoutSubscriber, 0U);
    EXPECT_EQ(Written().lastAt, instruments::layout::NoTime);

    entry.NoteAccepted(3, Begin + 900, true);
    EXPECT_EQ(Written().lastValue, 3);
    EXPECT_EQ(Written().largestGap, 1);
}

TEST_F(PublisherEntryTest, TheNextPublisherOfATopic_KeepsItsLastValueAndNoGap) {
    entry.Begin(Begin, false);
    entry.NoteAccepted(1, Begin + 500, true);
    entry.NoteAccepted(2, Begin + 520, true);
    const auto none = instruments::layout::PublisherFlow{};

    entry.Begin(Begin + 600, true);
    EXPECT_EQ(Written().lastValue, 2);
    EXPECT_EQ(Written().lastAt, Begin + 520);
    EXPECT_EQ(Written().largestGap, none.largestGap);

    entry.Begin(Begin + 700, false);
    EXPECT_EQ(Written().lastAt, none.lastAt);
}

} // namespace
