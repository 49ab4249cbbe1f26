// Defends where the bus's events thread runs: by the thread that pushes, after pauses and in streams; as the scheduler
// decides otherwise; and where it was put by its program or its operator.
#include "placement.h"

#include "support/cpus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sched.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

using cor::ResultCode;
using msgbus_server::Placement;
using test_support::Await;
using test_support::Cpus;
using namespace std::chrono_literals;

class FakeProvider : public message_bus::IProvider {
public:
    MOCK_METHOD(ResultCode, Push, (long, long), (override));
};

using Clock = Placement::Clock;

/// The test's own thread is the events thread: it notes the deliveries. Others push.
class PlacementTest : public test_support::CpusTest {
protected:
    PlacementTest() { ON_CALL(provider, Push).WillByDefault(testing::Return(ResultCode::Success)); }

    Clock::time_point Now() const { return Clock::time_point(Clock::duration(time)); }
    void Advance(std::chrono::nanoseconds duration) { time += Clock::duration(duration).count(); }

    /// A thread that is confined to `cpu` pushes `gap` after the last push.
    void Push(int cpu, std::chrono::nanoseconds gap) {
        Advance(gap);
        std::thread([&] {
            Cpus::Only(cpu).GiveTo(0);
            EXPECT_EQ(placement.Push(1, 2), ResultCode::Success);
        }).join();
    }

    /// `times` times a push and, `delay` later, its delivery.
    void PushAndDeliver(int times, int cpu, std::chrono::nanoseconds gap, std::chrono::nanoseconds delay = 1us) {
        for (int i = 0; i < times; ++i) {
            Push(cpu, gap - delay);
            Advance(delay);
            placement.NoteDelivery();
        }
    }

    void BeginStream(int cpu) { PushAndDeliver(Placement::PushesOfAStream + 1, cpu, 10us); }

    /// Pushes after pauses until the events thread sleeps on the pushing thread's CPU: 8 free deliveries, of which each
    /// shows the delay of the choice before it, then the first confined one.
    void LearnToBeConfined(int cpu) { PushAndDeliver(9, cpu, 2ms, 50us); }

    std::atomic<Clock::rep> time = Clock::duration(1h).count();
    testing::NiceMock<FakeProvider> provider;
    Placement placement{provider, [this] { return Now(); }, 10ms}; // the watch looks at the test's clock every 10 ms
};

TEST_F(PlacementTest, Push_PassesOnWhatItGetsAndReturnsWhatItGets) {
    EXPECT_CALL(provider, Push(7, -3)).WillOnce(testing::Return(ResultCode::Exhausted));
    EXPECT_EQ(placement.Push(7, -3), ResultCode::Exhausted);
}

TEST_F(PlacementTest, AStreamOfPushes_MovesTheEventsThreadOffTheCpuOfThePushes) {
    PushAndDeliver(Placement::PushesOfAStream, 1, 10us);
    EXPECT_EQ(Cpus::Of(), all) << "the first of them came after a pause";
    PushAndDeliver(1, 1, 10us);
    EXPECT_EQ(Cpus::Of(), all.Without(1));
}

TEST_F(PlacementTest, AStreamThatLasts_IsFollowedToAnotherCpu) {
    BeginStream(1);
    PushAndDeliver(Placement::PushesOfAStream, 0, 10us);
    EXPECT_EQ(Cpus::Of(), all.Without(0));
    PushAndDeliver(Placement::PushesOfAStream, 1, 10us);
    EXPECT_EQ(Cpus::Of(), all.Without(1));
}

TEST_F(PlacementTest, ALongerGap_EndsAStreamAtOnce) {
    BeginStream(1);
    PushAndDeliver(1, 1, 150us);
    EXPECT_EQ(Cpus::Of(), all);
    PushAndDeliver(Placement::PushesOfAStream - 1, 1, 10us);
    EXPECT_EQ(Cpus::Of(), all) << "a stream begins anew";
}

TEST_F(PlacementTest, DeliveriesOfOnePush_CountOnce) {
    Push(1, 10us);
    for (int i = 0; i < 10 * Placement::PushesOfAStream; ++i) {
        placement.NoteDelivery();
    }
    EXPECT_EQ(Cpus::Of(), all);
}

TEST_F(PlacementTest, APushAfterAPause_IsDeliveredOnTheCpuThatItCameFrom_OnceWakingUpHasProvedToBeSlow) {
    PushAndDeliver(8, 1, 2ms, 50us);
    EXPECT_EQ(Cpus::Of(), all);
    PushAndDeliver(1, 1, 2ms, 50us);
    EXPECT_EQ(Cpus::Of(), Cpus::Only(1));
    PushAndDeliver(1, 0, 2ms, 5us);
    EXPECT_EQ(Cpus::Of(), Cpus::Only(0));
}

TEST_F(PlacementTest, APushAfterAPause_WhereWakingUpIsCheap_ChangesNothing) {
    PushAndDeliver(200, 1, 2ms, 5us);
    EXPECT_EQ(Cpus::Of(), all);
}

TEST_F(PlacementTest, PushesWithoutAPause_EndTheConfinementAtOnce) {
    LearnToBeConfined(1);
    ASSERT_EQ(Cpus::Of(), Cpus::Only(1));
    PushAndDeliver(1, 1, 10us);
    EXPECT_EQ(Cpus::Of(), all);
}

TEST_F(PlacementTest, ADeliveryWithoutAPause_ShowsNothingAboutThePlace) {
    for (int i = 0; i < 50; ++i) {
        PushAndDeliver(1, 1, 2ms, 1us);
        EXPECT_EQ(Cpus::Of(), all);
        PushAndDeliver(1, 1, 500us, 400us); // slow, but not for want of a wake-up
    }
}

TEST_F(PlacementTest, WhenDeliveriesEnd_TheEventsThreadIsLetGo) {
    BeginStream(1);
    ASSERT_EQ(Cpus::Of(), all.Without(1));
    Advance(11ms);
    EXPECT_TRUE(Await([&] { return Cpus::Of() == all; }));
    PushAndDeliver(1, 1, 10us);
    LearnToBeConfined(1);
    ASSERT_EQ(Cpus::Of(), Cpus::Only(1));
    Advance(11ms);
    EXPECT_TRUE(Await([&] { return Cpus::Of() == all; })) << "once more";
}

TEST_F(PlacementTest, WhenPushesReachNoSubscriber_TheEventsThreadIsLetGo) {
    BeginStream(1);
    EXPECT_TRUE(Await([&] {
        Push(1, 5ms);
        return Cpus::Of() == all;
    }));
}

TEST_F(PlacementTest, End_LetsTheEventsThreadGoForGood) {
    BeginStream(1);
    placement.End();
    EXPECT_EQ(Cpus::Of(), all);
    BeginStream(1);
    LearnToBeConfined(1);
    EXPECT_EQ(Cpus::Of(), all);
}

TEST_F(PlacementTest, ItsEnd_LetsTheEventsThreadGo) {
    {
        Placement other(provider, [this] { return Now(); });
        for (int i = 0; i <= Placement::PushesOfAStream; ++i) {
            Advance(10us);
            other.Push(1, 2);
            other.NoteDelivery();
        }
        ASSERT_EQ(Cpus::Of().Count(), all.Count() - 1);
    }
    EXPECT_EQ(Cpus::Of(), all);
}

TEST_F(PlacementTest, AnEventsThreadWithCpusOfItsOwn_KeepsThem) {
    Cpus::Only(0).GiveTo(0);
    BeginStream(0);
    EXPECT_EQ(Cpus::Of(), Cpus::Only(0));
    PushAndDeliver(50, 1, 2ms, 50us);
    EXPECT_EQ(Cpus::Of(), Cpus::Only(0));
}

TEST_F(PlacementTest, AnEventsThreadUnderAnotherPolicy_KeepsItAndItsCpus) {
    constexpr sched_param noPriority{};
    ASSERT_EQ(0, ::sched_setscheduler(0, SCHED_BATCH, &noPriority));
    BeginStream(0);
    PushAndDeliver(50, 1, 2ms, 50us);
    EXPECT_EQ(Cpus::Of(), all);
    EXPECT_EQ(SCHED_BATCH, ::sched_getscheduler(0));
}

TEST_F(PlacementTest, AnEventsThreadThatIsPlacedMeanwhile_StaysThere) {
    BeginStream(1);
    ASSERT_EQ(Cpus::Of(), all.Without(1));
    Cpus::Only(1).GiveTo(0);
    PushAndDeliver(1, 1, 150us);
    EXPECT_EQ(Cpus::Of(), Cpus::Only(1));
    BeginStream(1);
    LearnToBeConfined(0);
    EXPECT_EQ(Cpus::Of(), Cpus::Only(1));
}

} // namespace
