// Defends how the server's threads run: together on one processor and without preempting each other while values follow
// each other closely, otherwise as the scheduler decides, and the same answers either way.
#include "placement.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <thread>

namespace {

using cor::ResultCode;
using msgbus_server::Placement;
using namespace std::chrono_literals;

class FakeProvider : public message_bus::IProvider {
public:
    MOCK_METHOD(ResultCode, Push, (long, long), (override));
};

std::chrono::steady_clock::time_point now;

cpu_set_t Processors() {
    cpu_set_t processors{};
    EXPECT_EQ(::sched_getaffinity(0, sizeof processors, &processors), 0);
    return processors;
}

class PlacementTest : public testing::Test {
protected:
    PlacementTest() {
        ON_CALL(provider, Push).WillByDefault(testing::Return(ResultCode::Success));
        now = std::chrono::steady_clock::time_point(1h);
    }
    ~PlacementTest() override { RunAsUsual(); }

    void RunAsUsual() const {
        constexpr sched_param noPriority{};
        EXPECT_EQ(::sched_setaffinity(0, sizeof before, &before), 0);
        EXPECT_EQ(::sched_setscheduler(0, SCHED_OTHER, &noPriority), 0);
    }

    void Push(int times, std::chrono::microseconds gap) { Push(placement, times, gap); }
    static void Push(Placement& publisher, int times, std::chrono::microseconds gap) {
        for (int i = 0; i < times; ++i) {
            now += gap;
            EXPECT_EQ(publisher.Push(1, i), ResultCode::Success);
        }
    }

    bool AreSpread() const {
        const cpu_set_t processors = Processors();
        return CPU_EQUAL(&processors, &before) != 0;
    }
    bool IsAsUsual() const { return AreSpread() && ::sched_getscheduler(0) == SCHED_OTHER; }

    const cpu_set_t before = Processors();
    testing::NiceMock<FakeProvider> provider;
    Placement placement{provider, [] { return now; }};
};

TEST_F(PlacementTest, Push_PassesOnWhatItGetsAndAnswersWhatItIsAnswered) {
    EXPECT_CALL(provider, Push(7, -3)).WillOnce(testing::Return(ResultCode::Exhausted));
    EXPECT_EQ(placement.Push(7, -3), ResultCode::Exhausted);
}

TEST_F(PlacementTest, Push_WithShortGaps_PutsAllThreadsOnOneProcessor) {
    std::promise<void> isDone;
    std::promise<std::pair<cpu_set_t, int>> others;
    std::thread other([&] {
        isDone.get_future().wait();
        others.set_value({Processors(), ::sched_getscheduler(0)});
    });
    Push(1, 1s);
    Push(Placement::QuickPushes - 1, 20us);
    EXPECT_TRUE(IsAsUsual());
    Push(1, 20us);
    const cpu_set_t own = Processors();
    EXPECT_EQ(CPU_COUNT(&own), 1);
    EXPECT_EQ(::sched_getscheduler(0), SCHED_BATCH);
    isDone.set_value();
    const auto [processors, policy] = others.get_future().get();
    other.join();
    EXPECT_TRUE(CPU_EQUAL(&own, &processors));
    EXPECT_EQ(policy, SCHED_BATCH);
}

TEST_F(PlacementTest, Push_OfThreadsWithAnotherPolicy_LeavesThemThat) {
    constexpr sched_param noPriority{};
    ASSERT_EQ(::sched_setscheduler(0, SCHED_BATCH, &noPriority), 0);
    Placement batch{provider, [] { return now; }};
    Push(batch, Placement::QuickPushes + 1, 20us);
    Push(batch, Placement::SlowPushes, 2ms);
    EXPECT_TRUE(AreSpread());
    EXPECT_EQ(::sched_getscheduler(0), SCHED_BATCH);
}

TEST_F(PlacementTest, Push_WithOneLongGapAmongShortOnes_BeginsToCountAnew) {
    Push(Placement::QuickPushes - 1, 20us);
    Push(1, 150us);
    Push(Placement::QuickPushes - 1, 20us);
    EXPECT_TRUE(IsAsUsual());
}

TEST_F(PlacementTest, Push_WithLongGapsAfterShortOnes_GivesTheThreadsBackToTheScheduler) {
    Push(Placement::QuickPushes + 1, 20us);
    Push(Placement::SlowPushes - 1, 2ms);
    EXPECT_FALSE(IsAsUsual());
    Push(1, 2ms);
    EXPECT_TRUE(IsAsUsual());
}

TEST_F(PlacementTest, Push_WithShortGapsThatGoOn_FindsAThreadThatWasMissed) {
    Push(Placement::QuickPushes + 1, 20us);
    RunAsUsual(); // as one that was being made
    Push(Placement::QuickPushes, 20us);
    const cpu_set_t own = Processors();
    EXPECT_EQ(CPU_COUNT(&own), 1);
    EXPECT_EQ(::sched_getscheduler(0), SCHED_BATCH);
}

TEST_F(PlacementTest, Push_WithLongGapsThatGoOn_FindsAThreadThatWasMissed) {
    Push(Placement::QuickPushes + 1, 20us);
    const cpu_set_t one = Processors();
    Push(Placement::SlowPushes, 2ms);
    ::sched_setaffinity(0, sizeof one, &one); // as one that was being made
    Push(Placement::SlowPushes, 2ms);
    EXPECT_TRUE(AreSpread());
}

} // namespace
