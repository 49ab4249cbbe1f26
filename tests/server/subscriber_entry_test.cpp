// Defends the account of one subscriber where threads are late or faster than each other: its terms add up, and no
// value waits for it.
#include "account/subscriber_entry.h"

#include "subscriber_waits.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using instruments::layout::Drop;
using message_bus::Message;
using msgbus_server::SlowSubscriber;
using msgbus_server::SubscriberEntry;
using msgbus_server::SubscriberWaits;
using testing::ElementsAre;
using testing::IsEmpty;

struct Sink final : msgbus_server::ISubscriberSink {
    void Note(instruments::layout::Subscriber&, std::uint64_t) noexcept override {}
    void NoteGivenUp(long subscriberId) noexcept override { givenUp.push_back(subscriberId); }
    msgbus_server::Trace& Following() noexcept override { return trace; }
    std::vector<long> givenUp;
    msgbus_server::Trace trace;
};

class SubscriberEntryTest : public testing::Test {
protected:
    std::uint64_t Dropped(Drop reason) const { return entry->Flow().dropped[static_cast<std::size_t>(reason)]; }
    void ExpectAddsUp() const {
        const auto& flow = entry->Flow();
        std::uint64_t sum = flow.taken + flow.offered + flow.handedOver + entry->Queued();
        for (const std::uint64_t dropped : flow.dropped) {
            sum += dropped;
        }
        EXPECT_EQ(sum, slot.due.load());
    }

    instruments::layout::Subscriber slot;
    instruments::Twin<instruments::layout::FanOutTotals> totals;
    msgbus_server::FanOutRing ring{totals};
    Sink sink;
    std::shared_ptr<SubscriberEntry> entry = std::make_shared<SubscriberEntry>(7, slot, ring, sink);
};

TEST_F(SubscriberEntryTest, AValueThatNeverCame_EndsTheAccountAndIsNotWaitedForAgain) {
    entry->NoteDue();
    entry->BeginHandOver(1);
    entry->EndHandOver(1, 0);

    entry->NoteDropped(Drop::Oldest, 1);

    EXPECT_THAT(sink.givenUp, ElementsAre(7));
    EXPECT_FALSE(entry->NoteDue());
    entry->BeginHandOver(1);
    entry->EndHandOver(1, 0);
    EXPECT_THAT(sink.givenUp, ElementsAre(7));
    EXPECT_EQ(entry->Flow().taken, 1U);
    EXPECT_EQ(Dropped(Drop::Oldest), 0U);
    ExpectAddsUp();
}

TEST_F(SubscriberEntryTest, WhatWasOffered_IsTakenUndeliveredOrUnreadAgain) {
    for (int i = 0; i < 6; ++i) {
        entry->NoteDue();
    }
    entry->BeginHandOver(6);
    entry->EndHandOver(1, 5);

    entry->EndOffer(2, 1);

    EXPECT_EQ(entry->Flow().taken, 3U);
    EXPECT_EQ(Dropped(Drop::Undelivered), 1U);
    EXPECT_EQ(entry->Queued(), 2U);
    ExpectAddsUp();
}

TEST_F(SubscriberEntryTest, WhatIsLeftOfAnAccountThatWasGivenUp_IsDroppedWithTheSubscriber) {
    entry->NoteDue();
    entry->NoteDropped(Drop::Oldest, 2);
    EXPECT_THAT(sink.givenUp, ElementsAre(7));

    EXPECT_EQ(entry->DropAll(Drop::Unregistered), 1U);

    EXPECT_EQ(entry->Queued(), 0U);
    ExpectAddsUp();
}

struct Events final : SubscriberWaits::IEvents {
    void OnEnd(long) noexcept override {}
    void OnDelivery() noexcept override {}
    void OnCut(long) noexcept override { ++cuts; }
    void OnExceeded(msgbus_server::QueueBudget::Exceeded, std::uint64_t) noexcept override {}
    void OnDiscrepancy(long) noexcept override { ++discrepancies; }
    int cuts = 0;
    int discrepancies = 0;
};

/// The account of a subscriber whose waits block in the bus, which takes values from the queue by itself.
class BlockingSubscriberTest : public SubscriberEntryTest {
protected:
    void Limit(std::size_t values, SlowSubscriber policy) {
        waits = std::make_shared<SubscriberWaits>(subscriber, events, SubscriberWaits::Allowance{{values, policy, 1}},
                                                  entry);
        waits->Follow();
    }
    void Give(long value) { subscriber->queue.Enqueue(std::make_shared<Message>("heat", value)); }
    /// A wait takes a value, and has not noted it yet.
    void TakeInTheBus() {
        std::shared_ptr<Message> taken;
        ASSERT_TRUE(subscriber->queue.TryPop(taken));
    }
    ~BlockingSubscriberTest() override {
        if (waits) {
            waits->Unfollow();
        }
    }

    Events events;
    std::shared_ptr<message_bus::Subscriber> subscriber = std::make_shared<message_bus::Subscriber>();
    std::shared_ptr<SubscriberWaits> waits;
};

TEST_F(BlockingSubscriberTest, ACutBetweenATakeAndItsNote_WaitsForNothing) {
    Limit(2, SlowSubscriber::Cut);
    Give(1);
    TakeInTheBus();
    for (const long value : {2, 3, 4}) {
        Give(value);
    }
    ASSERT_EQ(events.cuts, 1);

    waits->NoteTakenInTheBus();
    Give(5); // until the subscriber is unregistered

    EXPECT_THAT(sink.givenUp, IsEmpty());
    EXPECT_EQ(entry->Flow().taken, 0U);
    EXPECT_EQ(Dropped(Drop::Cut), 5U);
    ExpectAddsUp();
}

TEST_F(BlockingSubscriberTest, ATakeThatIsNotedLate_IsTakenAndNotDropped) {
    Limit(2, SlowSubscriber::DropOldest);
    Give(1);
    TakeInTheBus();
    for (const long value : {2, 3, 4}) {
        Give(value);
    }

    waits->NoteTakenInTheBus();

    EXPECT_EQ(entry->Flow().taken, 1U);
    EXPECT_EQ(Dropped(Drop::Oldest), 1U);
    EXPECT_THAT(sink.givenUp, IsEmpty());
    ExpectAddsUp();
}

} // namespace
