// Defends when the transport looks again, yields its CPU, or does not spin at all.
#include "records/adaptive_spin.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sched.h>

#include <vector>

namespace {

bool hasOneCpu = false;
int yields = 0;

} // namespace

/// In place of the C library's: counts.
extern "C" int sched_yield() noexcept {
    ++yields;
    return 0;
}

bool borven_host::HasOneCpu() noexcept {
    return hasOneCpu;
}

namespace {

using borven_host::SpinLearner;
using borven_host::SpinUntil;
using namespace std::chrono_literals;

class SpinningTest : public testing::TestWithParam<bool> {
protected:
    SpinningTest() { hasOneCpu = GetParam(); }
    ~SpinningTest() override { hasOneCpu = false; }

    SpinLearner learner;
};

INSTANTIATE_TEST_SUITE_P(Cpus, SpinningTest, testing::Values(false, true),
                         [](const auto& cpus) { return cpus.param ? "One" : "Several"; });

TEST_P(SpinningTest, SpinUntil_LooksUntilItSees) {
    for (const int wanted : {1, 2, 31, 32, 33, 100}) {
        int looks = 0;
        EXPECT_TRUE(SpinUntil(1h, learner, [&] { return ++looks == wanted; }));
        EXPECT_EQ(looks, wanted);
    }
}

TEST_P(SpinningTest, SpinUntil_GivesUpAtTheLimitAfterOneMoreLook) {
    int looks = 0;
    EXPECT_FALSE(SpinUntil(0us, learner, [&] {
        ++looks;
        return false;
    }));
    EXPECT_GT(looks, 32);
}

TEST(SpinLearnerTest, IsWorthwhile_AfterFailures_LeavesOutTwiceAsManyOccasionsEachTime) {
    SpinLearner learner;
    for (const int leftOut : {2, 4, 8, 16, 32, 64, 128, 256, 512, 1024, 1024}) {
        EXPECT_TRUE(learner.IsWorthwhile());
        learner.Failed();
        for (int i = 0; i < leftOut; ++i) {
            ASSERT_FALSE(learner.IsWorthwhile()) << i << " of " << leftOut;
        }
    }
}

TEST(SpinLearnerTest, IsWorthwhile_AfterSixteenSuccesses_HasForgottenTheFailures) {
    SpinLearner learner;
    const auto leftOut = [&] {
        learner.Failed();
        int count = 0;
        while (!learner.IsWorthwhile()) {
            ++count;
        }
        return count;
    };
    EXPECT_EQ(leftOut(), 2);
    EXPECT_EQ(leftOut(), 4);
    for (int i = 0; i < 15; ++i) {
        learner.Succeeded();
    }
    EXPECT_EQ(leftOut(), 8);
    for (int i = 0; i < 16; ++i) {
        learner.Succeeded();
    }
    EXPECT_EQ(leftOut(), 2);
}

TEST(SpinLearnerTest, ShouldShare_AfterLongYields_LeavesOutTwiceAsManyOccasionsEachTime) {
    SpinLearner learner;
    const auto leftOut = [&] {
        learner.Shared(500us);
        int count = 0;
        while (!learner.ShouldShare()) {
            ++count;
        }
        return count;
    };
    EXPECT_TRUE(learner.ShouldShare());
    EXPECT_EQ(leftOut(), 2);
    EXPECT_EQ(leftOut(), 4);
    for (int i = 0; i < 16; ++i) {
        learner.Shared(499us);
    }
    EXPECT_EQ(leftOut(), 2);
    EXPECT_TRUE(learner.IsWorthwhile()); // another thing
}

TEST(SpinLearnerTest, ShouldYieldAtOnce_OnceAnswersCameOnlyAfterAYield_ExceptEverySixtyFourthTime) {
    SpinLearner learner;
    for (int i = 0; i < 4; ++i) {
        EXPECT_FALSE(learner.ShouldYieldAtOnce());
        learner.CameAfterYield();
    }
    std::vector<int> triedAwake;
    for (int i = 1; i <= 128; ++i) {
        if (!learner.ShouldYieldAtOnce()) {
            triedAwake.push_back(i);
        }
    }
    EXPECT_EQ(triedAwake, (std::vector{64, 128}));
    learner.CameAwake();
    EXPECT_FALSE(learner.ShouldYieldAtOnce());
}

TEST(SpinUntilTest, OnOneCpu_LearnsThatAnswersComeOnlyAfterAYield) {
    hasOneCpu = true;
    SpinLearner learner;
    for (int i = 0; i < 4; ++i) {
        int looks = 0;
        SpinUntil(1h, learner, [&] { return ++looks == 33; });
    }
    EXPECT_TRUE(learner.ShouldYieldAtOnce());
    int looks = 0;
    SpinUntil(1h, learner, [&] { return ++looks == 1; }); // before any yield, but after a single look
    EXPECT_TRUE(learner.ShouldYieldAtOnce());
    hasOneCpu = false;
}

TEST(SpinUntilTest, OnSeveralCpus_YieldsTheCpuOnceItHasSpunForLong) {
    SpinLearner learner;
    yields = 0;
    int looks = 0;
    EXPECT_TRUE(SpinUntil(1h, learner, [&] { return ++looks == 32; }));
    EXPECT_EQ(yields, 0);
    const auto start = borven_host::SteadyClock::now();
    EXPECT_TRUE(SpinUntil(1h, learner, [&] {
        return yields == 2 || borven_host::SteadyClock::now() - start > 10s; // the test fails then
    }));
    EXPECT_EQ(yields, 2);
    EXPECT_GE(borven_host::SteadyClock::now() - start, borven_host::UnsharedSpin);
}

TEST(SpinUntilTest, OnSeveralCpus_BesideABusyThread_KeepsItsCpu) {
    SpinLearner learner;
    learner.Shared(1s);
    yields = 0;
    const auto start = borven_host::SteadyClock::now();
    EXPECT_FALSE(SpinUntil(2 * borven_host::UnsharedSpin, learner, [] { return false; }));
    EXPECT_GE(borven_host::SteadyClock::now() - start, 2 * borven_host::UnsharedSpin);
    EXPECT_EQ(yields, 0);
}

TEST(SpinUntilTest, OnSeveralCpus_LearnsNothingAboutYields) {
    SpinLearner learner;
    for (int i = 0; i < 8; ++i) {
        int looks = 0;
        SpinUntil(1h, learner, [&] { return ++looks == 33; });
    }
    EXPECT_FALSE(learner.ShouldYieldAtOnce());
}

} // namespace
