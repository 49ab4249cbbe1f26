// Defends where a thread sleeps: confined where that has proved to be faster, never longer than a second, and never
// while it runs anything else.
#include "records/sleep_place.h"

#include "records/event_fd.h"
#include "support/cpus.h"

#include <gtest/gtest.h>

#include <csignal>
#include <optional>
#include <thread>

namespace {

thread_local std::optional<std::chrono::steady_clock::time_point> stoppedClock; ///< of the calling thread

} // namespace

// The linker puts the second in place of std::chrono::steady_clock::now (see CMakeLists.txt).
std::chrono::steady_clock::time_point SystemClock() noexcept asm("__real__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::steady_clock::time_point ThreadClock() noexcept asm("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::steady_clock::time_point ThreadClock() noexcept {
    return stoppedClock ? *stoppedClock : SystemClock();
}

namespace {

using borven_host::MakeBell;
using borven_host::ReceiverPlace;
using borven_host::Ring;
using borven_host::SleepPlace;
using borven_host::SleepUntilEvent;
using borven_host::SteadyClock;
using borven_host::UniqueFd;
using borven_host::WakeHint;
using borven_host::Watch;
using common::ConfinedThread;
using test_support::Await;
using test_support::Cpus;
using namespace std::chrono_literals;

/// What a thread on `cpu` leaves when it wakes another one now.
WakeHint HintFrom(int cpu) {
    return WakeHint((WakeHint::Now().Raw() & ~0xFFU) | static_cast<std::uint32_t>(cpu + 1));
}

void RunFor(std::chrono::microseconds duration) {
    for (const auto end = SteadyClock::now() + duration; SteadyClock::now() < end;) {
    }
}

class WakeHintTest : public test_support::CpusTest {};

TEST_F(WakeHintTest, Now_HoldsTheCpuAndTheTime) {
    Cpus::Only(1).GiveTo(0);
    const auto before = SteadyClock::now();
    const WakeHint hint = WakeHint::Now();
    EXPECT_EQ(hint.Cpu(), 1);
    EXPECT_TRUE(hint.HasTime());
    const auto after = SteadyClock::now();
    EXPECT_LE(hint.Since(after), after - before + 1us); // a hint counts whole microseconds
    EXPECT_GE(hint.Since(after + 300us), 300us);
}

TEST_F(WakeHintTest, Here_HoldsTheCpuAlone) {
    Cpus::Only(1).GiveTo(0);
    EXPECT_EQ(WakeHint::Here().Cpu(), 1);
    EXPECT_FALSE(WakeHint::Here().HasTime());
}

TEST_F(WakeHintTest, OfZero_KnowsNoCpu) {
    EXPECT_EQ(WakeHint(0).Cpu(), -1);
    EXPECT_FALSE(WakeHint(0).HasTime());
}

/// One thread that sleeps after pauses and is woken from CPU 1.
class SleepPlaceTest : public test_support::CpusTest {
protected:
    /// Sleeps after a pause. Returns: the CPUs that it slept on.
    Cpus Sleep(SleepPlace& place, std::chrono::microseconds delay, int wakerCpu = 1) {
        std::this_thread::sleep_for(2ms); // the pause
        ConfinedThread self;
        place.Enter(self);
        const Cpus slept = Cpus::Of();
        std::this_thread::sleep_for(2ms); // the sleep
        const WakeHint hint = HintFrom(wakerCpu);
        RunFor(delay);
        place.Leave(hint);
        self.LetGo();
        EXPECT_EQ(Cpus::Of(), all);
        return slept;
    }

    /// Sleeps until it is confined where waking up takes at least 200 us.
    Cpus SleepUntilConfined(SleepPlace& place) {
        Cpus slept = all;
        EXPECT_TRUE(Await([&] {
            slept = Sleep(place, 200us);
            return !(slept == all);
        }));
        return slept;
    }

    SleepPlace caller{SleepPlace::Sleeper::Caller};
    SleepPlace receiver{SleepPlace::Sleeper::Receiver};
};

TEST_F(SleepPlaceTest, Enter_AtFirst_LeavesTheThreadAlone) {
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(Sleep(caller, 200us), all);
    }
}

TEST_F(SleepPlaceTest, Enter_OfACallerThatBegins_ConfinesItToItsOwnCpu) {
    const Cpus slept = SleepUntilConfined(caller);
    EXPECT_EQ(slept.Count(), 1);
}

TEST_F(SleepPlaceTest, Enter_OfAReceiver_ConfinesItToTheCpuOfItsWaker) {
    EXPECT_EQ(SleepUntilConfined(receiver), Cpus::Only(1));
    Sleep(receiver, 0us, 0);
    EXPECT_EQ(Sleep(receiver, 0us, 0), Cpus::Only(0)) << "the waker has moved";
}

TEST_F(SleepPlaceTest, Enter_AfterAHintWithoutATime_HasLearntNothing) {
    // Taken for a time, its zero would be that of the clock's last wrap, here in the middle of each sleep.
    constexpr std::chrono::microseconds wrap{1 << 24};
    const WakeHint hint = WakeHint::Here();
    ASSERT_FALSE(hint.HasTime());
    struct ClockStop {
        ~ClockStop() { stoppedClock.reset(); }
    } stop;
    for (int i = 1; i <= 20; ++i) {
        const SteadyClock::time_point wrapped(i * wrap);
        stoppedClock = wrapped - 1ms;
        ConfinedThread self;
        caller.Enter(self);
        EXPECT_FALSE(self.IsConfined());
        stoppedClock = wrapped + 500us;
        ASSERT_LE(hint.Since(*stoppedClock), 500us);
        caller.Leave(hint);
    }
}

TEST_F(SleepPlaceTest, Enter_AfterAHintFromBeforeTheSleep_HasLearntNothing) {
    const WakeHint stale = HintFrom(1);
    for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(2ms);
        ConfinedThread self;
        caller.Enter(self);
        EXPECT_FALSE(self.IsConfined());
        caller.Leave(stale);
    }
}

TEST_F(SleepPlaceTest, Enter_OfAThreadWithCpusOfItsOwn_ChangesNothing) {
    SleepUntilConfined(caller);
    Cpus::Only(1).GiveTo(0);
    for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(2ms);
        ConfinedThread self;
        caller.Enter(self);
        EXPECT_EQ(Cpus::Of(), Cpus::Only(1));
        caller.Leave(HintFrom(0));
    }
    EXPECT_EQ(Cpus::Of(), Cpus::Only(1));
}

TEST_F(SleepPlaceTest, Enter_OfAThreadUnderAnotherPolicy_ChangesNothing) {
    SleepUntilConfined(caller);
    constexpr sched_param noPriority{};
    ASSERT_EQ(0, ::sched_setscheduler(0, SCHED_BATCH, &noPriority));
    for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(2ms);
        ConfinedThread self;
        caller.Enter(self);
        EXPECT_EQ(Cpus::Of(), all);
        caller.Leave(HintFrom(0));
    }
}

TEST_F(SleepPlaceTest, NoteAwake_OfAReceiver_EndsThePause) {
    SleepUntilConfined(receiver);
    receiver.NoteAwake();
    ConfinedThread self;
    receiver.Enter(self);
    EXPECT_FALSE(self.IsConfined());
}

class SleepUntilEventTest : public test_support::CpusTest {
protected:
    SleepUntilEventTest() { EXPECT_TRUE(Watch(epoll, bell.Get(), EPOLLIN | EPOLLET, 7)); }

    int Sleep() {
        return SleepUntilEvent(epoll, &event, 1, [this] { self.LetGo(); });
    }

    UniqueFd epoll{::epoll_create1(EPOLL_CLOEXEC)};
    UniqueFd bell = MakeBell();
    epoll_event event{};
    ConfinedThread self;
};

TEST_F(SleepUntilEventTest, OfAConfinedThread_ReturnsTheEvent_AndLeavesItConfined) {
    ASSERT_TRUE(self.To(0));
    EXPECT_EQ(1, Sleep());
    const std::uint64_t data = event.data.u64; // which is not aligned
    EXPECT_EQ(7U, data);
    EXPECT_TRUE(self.IsConfined());
}

TEST_F(SleepUntilEventTest, WithoutAnEvent_LetsTheThreadGo_AndSleepsOn) {
    ASSERT_EQ(1, Sleep()); // the ring that a new bell has
    ASSERT_TRUE(self.To(0));
    const pid_t id = ::gettid();
    std::thread ringing([&] {
        EXPECT_TRUE(Await([&] { return Cpus::Of(id) == all; }));
        Ring(bell);
    });
    EXPECT_EQ(1, Sleep());
    EXPECT_FALSE(self.IsConfined());
    ringing.join();
}

TEST_F(SleepUntilEventTest, WithASignal_LetsTheThreadGo) {
    ASSERT_EQ(1, Sleep());
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, nullptr));
    ASSERT_TRUE(self.To(0));
    std::atomic<bool> isOver{false};
    std::thread signalling([&, sleeper = ::pthread_self()] {
        while (!isOver) {
            ::pthread_kill(sleeper, SIGUSR1);
            std::this_thread::sleep_for(1ms);
        }
    });
    EXPECT_EQ(-1, Sleep());
    isOver = true;
    signalling.join();
    EXPECT_FALSE(self.IsConfined());
    EXPECT_EQ(Cpus::Of(), all);
}

class ReceiverPlaceTest : public test_support::CpusTest {
protected:
    ReceiverPlace place;
};

TEST_F(ReceiverPlaceTest, NoteClose_OfSixtyFourRequestsFromItsOwnCpu_MovesTheReceiver_AndLeavesItFree) {
    EXPECT_TRUE(Await([&] {
        const int cpu = common::CurrentCpu();
        int requests = 1;
        while (!place.NoteClose(cpu) && requests < 1000) {
            ++requests;
        }
        EXPECT_GE(requests, 64);
        EXPECT_EQ(Cpus::Of(), all) << "threads that it starts do not inherit its CPUs";
        return requests == 64 && common::CurrentCpu() != cpu; // unless the scheduler has moved the thread meanwhile
    }));
}

TEST_F(ReceiverPlaceTest, NoteClose_OfRequestsFromElsewhere_LeavesTheReceiverAlone) {
    Cpus::Only(1).GiveTo(0); // so that its CPU is known
    for (int i = 0; i < 1000; ++i) {
        EXPECT_FALSE(place.NoteClose(0));
        EXPECT_FALSE(place.NoteClose(-1));
    }
    for (int i = 0; i < 1000; ++i) {
        EXPECT_FALSE(place.NoteClose(i % 64 == 0 ? 0 : 1)) << "not in a row";
    }
}

TEST_F(ReceiverPlaceTest, NoteClose_OfAThreadWithCpusOfItsOwn_ChangesNothing) {
    Cpus::Only(1).GiveTo(0);
    for (int i = 0; i < 1000; ++i) {
        EXPECT_FALSE(place.NoteClose(1));
    }
    EXPECT_EQ(Cpus::Of(), Cpus::Only(1));
}

} // namespace
