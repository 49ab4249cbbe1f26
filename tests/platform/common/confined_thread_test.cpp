// Defends what is done to a thread's CPUs: a thread that may use all of them is confined and let go, and one that its
// program or its operator has placed is left where they put it.
#include "common/confined_thread.h"

#include "support/cpus.h"

#include <gtest/gtest.h>

#include <csignal>
#include <future>
#include <thread>

namespace {

using common::ConfinedThread;
using test_support::Cpus;

class ConfinedThreadTest : public test_support::CpusTest {};

TEST_F(ConfinedThreadTest, To_ConfinesTheCallingThreadToThatCpu) {
    ConfinedThread self;
    EXPECT_FALSE(self.IsConfined());
    for (const int cpu : {0, 1}) {
        EXPECT_TRUE(self.To(cpu));
        EXPECT_TRUE(self.IsConfined());
        EXPECT_EQ(Cpus::Of(), Cpus::Only(cpu));
        EXPECT_EQ(common::CurrentCpu(), cpu);
    }
}

TEST_F(ConfinedThreadTest, OffOf_ConfinesTheCallingThreadToAllOtherCpus) {
    ConfinedThread self;
    for (const int cpu : {0, 1}) {
        EXPECT_TRUE(self.OffOf(cpu));
        EXPECT_TRUE(self.IsConfined());
        EXPECT_EQ(Cpus::Of(), all.Without(cpu));
        EXPECT_NE(common::CurrentCpu(), cpu);
    }
    EXPECT_TRUE(self.To(0));
    EXPECT_EQ(Cpus::Of(), Cpus::Only(0));
}

TEST_F(ConfinedThreadTest, LetGo_GivesAllCpusBack) {
    ConfinedThread self;
    ASSERT_TRUE(self.To(0));
    self.LetGo();
    EXPECT_FALSE(self.IsConfined());
    EXPECT_EQ(Cpus::Of(), all);
}

TEST_F(ConfinedThreadTest, TheEnd_GivesAllCpusBack) {
    {
        ConfinedThread self;
        ASSERT_TRUE(self.OffOf(1));
    }
    EXPECT_EQ(Cpus::Of(), all);
}

TEST_F(ConfinedThreadTest, OfAnotherThread_ConfinesThatOne) {
    std::promise<pid_t> id;
    std::promise<void> isDone;
    std::thread thread([&] {
        id.set_value(::gettid());
        isDone.get_future().wait();
    });
    const pid_t other = id.get_future().get();
    {
        ConfinedThread confined(other);
        EXPECT_TRUE(confined.To(1));
        EXPECT_EQ(Cpus::Of(other), Cpus::Only(1));
        EXPECT_EQ(Cpus::Of(), all);
    }
    EXPECT_EQ(Cpus::Of(other), all);
    isDone.set_value();
    thread.join();
}

TEST_F(ConfinedThreadTest, OfAThreadThatMayNotUseEveryCpu_ChangesNothing) {
    Cpus::Only(1).GiveTo(0);
    {
        ConfinedThread self;
        EXPECT_FALSE(self.To(0));
        EXPECT_FALSE(self.To(1));
        EXPECT_FALSE(self.OffOf(0));
        EXPECT_FALSE(self.IsConfined());
        EXPECT_EQ(Cpus::Of(), Cpus::Only(1));
    }
    EXPECT_EQ(Cpus::Of(), Cpus::Only(1));
}

TEST_F(ConfinedThreadTest, OfAThreadUnderAnotherPolicy_ChangesNothing) {
    constexpr sched_param noPriority{};
    for (const int policy : {SCHED_BATCH, SCHED_IDLE}) {
        ASSERT_EQ(0, ::sched_setscheduler(0, policy, &noPriority));
        ConfinedThread self;
        EXPECT_FALSE(self.To(0));
        EXPECT_FALSE(self.OffOf(0));
        EXPECT_EQ(Cpus::Of(), all);
        EXPECT_EQ(policy, ::sched_getscheduler(0));
    }
}

TEST_F(ConfinedThreadTest, WhoseThreadIsPlacedMeanwhile_LeavesItThere) {
    ConfinedThread self;
    ASSERT_TRUE(self.To(0));
    Cpus::Only(1).GiveTo(0);
    self.LetGo();
    EXPECT_EQ(Cpus::Of(), Cpus::Only(1));
    EXPECT_FALSE(self.To(0)) << "it is placed from now on";
    EXPECT_EQ(Cpus::Of(), Cpus::Only(1));
}

TEST_F(ConfinedThreadTest, WhoseThreadIsFreedMeanwhile_LeavesItFree) {
    ConfinedThread self;
    ASSERT_TRUE(self.To(0));
    all.GiveTo(0);
    self.LetGo();
    EXPECT_EQ(Cpus::Of(), all);
}

TEST_F(ConfinedThreadTest, ACpuThatDoesNotExist_ChangesNothing) {
    ConfinedThread self;
    for (const int cpu : {-1, CPU_SETSIZE - 1, CPU_SETSIZE}) {
        EXPECT_FALSE(self.To(cpu)) << cpu;
        EXPECT_FALSE(self.IsConfined());
        EXPECT_EQ(Cpus::Of(), all);
    }
    EXPECT_FALSE(self.OffOf(-1));
    ASSERT_TRUE(self.To(0));
    EXPECT_FALSE(self.To(-1));
    EXPECT_EQ(Cpus::Of(), all) << "what was asked for before is over";
}

TEST_F(ConfinedThreadTest, OfAThreadThatHasEnded_DoesNothing) {
    std::promise<pid_t> id;
    std::thread thread([&] { id.set_value(::gettid()); });
    const pid_t gone = id.get_future().get();
    thread.join();
    while (::tgkill(::getpid(), gone, 0) == 0) { // join returns a moment before the kernel forgets the thread
        std::this_thread::yield();
    }
    ConfinedThread confined(gone);
    EXPECT_FALSE(confined.To(0));
    EXPECT_FALSE(confined.IsConfined());
}

using ConfinedThreadDeathTest = ConfinedThreadTest;

// In a process of its own each: the environment is read once.
TEST_F(ConfinedThreadDeathTest, WithTheSwitchOff_ChangesNothing) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ::setenv("BORVEN_PLACEMENT", "off", 1);
            ConfinedThread self;
            const bool isLeftAlone = !self.To(0) && !self.OffOf(0) && Cpus::Of() == all && !common::MayConfineThreads();
            std::_Exit(isLeftAlone ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(ConfinedThreadDeathTest, WithAnyOtherSetting_Confines) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ::setenv("BORVEN_PLACEMENT", "on", 1);
            ConfinedThread self;
            std::_Exit(self.To(0) && common::MayConfineThreads() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
