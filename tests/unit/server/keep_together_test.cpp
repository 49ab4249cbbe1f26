// Defends the place of the server's threads: together on one processor while values come thick and fast, else wherever
// the scheduler likes, and the same answers either way.
#include "keep_together.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <thread>

namespace {

using cor::ResultCode;
using msgbus_server::KeepTogether;
using namespace std::chrono_literals;

class FakeProvider : public message_bus::IProvider {
public:
    MOCK_METHOD(ResultCode, Push, (long, long), (override));
};

std::chrono::steady_clock::time_point now;

cpu_set_t Processors() {
    cpu_set_t processors{};
    EXPECT_EQ(sched_getaffinity(0, sizeof processors, &processors), 0);
    return processors;
}

class KeepTogetherTest : public testing::Test {
protected:
    KeepTogetherTest() {
        ON_CALL(provider, Push).WillByDefault(testing::Return(ResultCode::Success));
        now = std::chrono::steady_clock::time_point(1h);
    }
    ~KeepTogetherTest() override { sched_setaffinity(0, sizeof before, &before); }

    void Push(int times, std::chrono::microseconds gap) {
        for (int i = 0; i < times; ++i) {
            now += gap;
            EXPECT_EQ(keepTogether.Push(1, i), ResultCode::Success);
        }
    }

    bool AreSpread() const {
        const cpu_set_t processors = Processors();
        return CPU_EQUAL(&processors, &before) != 0;
    }

    const cpu_set_t before = Processors();
    testing::NiceMock<FakeProvider> provider;
    KeepTogether keepTogether{provider, [] { return now; }};
};

TEST_F(KeepTogetherTest, Push_PassesOnWhatItGetsAndAnswersWhatItIsAnswered) {
    EXPECT_CALL(provider, Push(7, -3)).WillOnce(testing::Return(ResultCode::Exhausted));
    EXPECT_EQ(keepTogether.Push(7, -3), ResultCode::Exhausted);
}

TEST_F(KeepTogetherTest, Push_WithShortGaps_PutsAllThreadsOnOneProcessor) {
    std::promise<void> isDone;
    std::promise<cpu_set_t> othersProcessors;
    std::thread other([&] {
        isDone.get_future().wait();
        othersProcessors.set_value(Processors());
    });
    Push(1, 1s);
    Push(KeepTogether::quickPushes - 1, 20us);
    EXPECT_TRUE(AreSpread());
    Push(1, 20us);
    const cpu_set_t own = Processors();
    EXPECT_EQ(CPU_COUNT(&own), 1);
    isDone.set_value();
    const cpu_set_t others = othersProcessors.get_future().get();
    other.join();
    EXPECT_TRUE(CPU_EQUAL(&own, &others));
}

TEST_F(KeepTogetherTest, Push_WithOneLongGapAmongShortOnes_BeginsToCountAnew) {
    Push(KeepTogether::quickPushes - 1, 20us);
    Push(1, 150us);
    Push(KeepTogether::quickPushes - 1, 20us);
    EXPECT_TRUE(AreSpread());
}

TEST_F(KeepTogetherTest, Push_WithLongGapsAfterShortOnes_GivesTheThreadsBackToTheScheduler) {
    Push(KeepTogether::quickPushes + 1, 20us);
    Push(KeepTogether::slowPushes - 1, 2ms);
    if (CPU_COUNT(&before) > 1) {
        EXPECT_FALSE(AreSpread());
    }
    Push(1, 2ms);
    EXPECT_TRUE(AreSpread());
}

TEST_F(KeepTogetherTest, Push_WithShortGapsThatGoOn_FindsAThreadThatWasMissed) {
    Push(KeepTogether::quickPushes + 1, 20us);
    sched_setaffinity(0, sizeof before, &before); // as one that was being made
    Push(KeepTogether::quickPushes, 20us);
    const cpu_set_t own = Processors();
    EXPECT_EQ(CPU_COUNT(&own), 1);
}

TEST_F(KeepTogetherTest, Push_WithLongGapsThatGoOn_FindsAThreadThatWasMissed) {
    Push(KeepTogether::quickPushes + 1, 20us);
    const cpu_set_t one = Processors();
    Push(KeepTogether::slowPushes, 2ms);
    sched_setaffinity(0, sizeof one, &one); // as one that was being made
    Push(KeepTogether::slowPushes, 2ms);
    EXPECT_TRUE(AreSpread());
}

} // namespace
