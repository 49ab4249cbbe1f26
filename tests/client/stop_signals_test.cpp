// Defends StopSignals: the first signal calls the function, the second ends the program, ignored signals stay ignored,
// and nothing is left behind. Each test is a process of its own, because signals are.
#include "msgbus/stop_signals.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using msgbus::StopSignals;

/// A child process that runs a function with a pipe to report through, and then ends with status 0.
class Child final {
public:
    using Report = std::function<void(char)>;

    explicit Child(const std::function<void(const Report&)>& body) {
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        id = ::fork();
        if (id == 0) {
            ::alarm(60); // never outlives a test that failed
            ::usleep(1); // ThreadSanitizer loses a signal that comes during the first call that can block
            body([out = ends[1]](char what) { static_cast<void>(!::write(out, &what, 1)); });
            ::_exit(0);
        }
        ::close(ends[1]);
        reports = ends[0];
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        if (!ended) {
            ::kill(id, SIGKILL);
            ::waitpid(id, nullptr, 0);
        }
        ::close(reports);
    }

    void Send(int number) const { EXPECT_EQ(::kill(id, number), 0); }

    /// Returns: the next report; 0 at the end of the process.
    char Next() const {
        char what = 0;
        return ::read(reports, &what, 1) == 1 ? what : '\0';
    }

    /// Returns: the signal that ended it; 0 when it ended by itself with status 0; -1 with another status.
    int End() {
        int status = 0;
        EXPECT_EQ(::waitpid(id, &status, 0), id);
        ended = true;
        return WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status) == 0 ? 0 : -1;
    }

private:
    pid_t id = -1;
    int reports = -1;
    bool ended = false;
};

[[noreturn]] void WaitForever() {
    while (true) {
        ::pause();
    }
}

void Require(bool condition) {
    if (!condition) {
        ::_exit(1);
    }
}

class StopSignalsTest : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Either, StopSignalsTest, testing::Values(SIGTERM, SIGINT));

TEST_P(StopSignalsTest, TheFirstSignal_CallsTheFunctionOnceOnAnotherThread) {
    Child child([](const auto& report) {
        std::atomic<int> calls{0};
        const auto self = std::this_thread::get_id();
        const StopSignals stop([&] {
            Require(std::this_thread::get_id() != self);
            ++calls;
        });
        Require(!stop.HasCome());
        report('r');
        while (calls == 0) {
            ::usleep(1000);
        }
        Require(stop.HasCome() && calls == 1);
    });
    EXPECT_EQ(child.Next(), 'r');
    child.Send(GetParam());
    EXPECT_EQ(child.End(), 0);
}

TEST_P(StopSignalsTest, TheSecondSignal_EndsTheProgram) {
    for (const int first : {SIGTERM, SIGINT}) {
        Child child([](const auto& report) {
            const StopSignals stop([&] { report('s'); });
            report('r');
            WaitForever();
        });
        EXPECT_EQ(child.Next(), 'r');
        child.Send(first);
        EXPECT_EQ(child.Next(), 's');
        child.Send(GetParam());
        EXPECT_EQ(child.End(), GetParam());
    }
}

TEST_P(StopSignalsTest, TheSecondSignal_EndsAProgramWhoseFunctionHangs) {
    Child child([](const auto& report) {
        const StopSignals stop([&] {
            report('s');
            WaitForever();
        });
        report('r');
        WaitForever();
    });
    EXPECT_EQ(child.Next(), 'r');
    child.Send(GetParam());
    EXPECT_EQ(child.Next(), 's');
    child.Send(GetParam());
    EXPECT_EQ(child.End(), GetParam());
}

TEST_P(StopSignalsTest, AnIgnoredSignal_StaysIgnored) {
    const int ignored = GetParam();
    const int other = ignored == SIGINT ? SIGTERM : SIGINT;
    Child child([&](const auto& report) {
        ::signal(ignored, SIG_IGN);
        {
            const StopSignals stop([&] { report('s'); });
            ::raise(ignored);
            ::raise(ignored);
            Require(!stop.HasCome());
            report('r');
            ::raise(other);
            Require(stop.HasCome());
        }
        ::raise(ignored);
    });
    EXPECT_EQ(child.Next(), 'r');
    EXPECT_EQ(child.Next(), 's');
    EXPECT_EQ(child.Next(), '\0');
    EXPECT_EQ(child.End(), 0);
}

std::atomic<int> taken{0};
void CountSignal(int /*number*/) {
    ++taken;
}

TEST_P(StopSignalsTest, TheDestructor_RestoresTheProgramsHandlers) {
    Child child([&](const auto& report) {
        ::signal(GetParam(), CountSignal);
        for (int round = 0; round < 3; ++round) {
            {
                const StopSignals stop([&] { report('s'); });
                ::raise(GetParam());
                Require(stop.HasCome() && taken == round);
            }
            ::raise(GetParam());
            Require(taken == round + 1);
        }
    });
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(child.Next(), 's');
    }
    EXPECT_EQ(child.Next(), '\0');
    EXPECT_EQ(child.End(), 0);
}

TEST_P(StopSignalsTest, WithoutASignal_TheDefaultActionIsBackAndTheFunctionNotCalled) {
    Child child([&](const auto& report) {
        {
            const StopSignals stop([&] { report('s'); });
        }
        ::raise(GetParam());
    });
    EXPECT_EQ(child.Next(), '\0');
    EXPECT_EQ(child.End(), GetParam());
}

TEST_P(StopSignalsTest, ASystemCallOfTheProgram_IsRestarted) {
    Child child([&](const auto&) {
        const StopSignals stop([] {});
        struct sigaction action {};
        Require(::sigaction(GetParam(), nullptr, &action) == 0 && (action.sa_flags & SA_RESTART) != 0);
    });
    EXPECT_EQ(child.End(), 0);
}

TEST_P(StopSignalsTest, AProcessMadeByFork_TakesTheDefaultActionAndLeavesItsParentAlone) {
    if (!BORVEN_SIGNALS_AFTER_FORK) {
        GTEST_SKIP() << "ThreadSanitizer holds signals back in a process that threads were forked from";
    }
    Child child([&](const auto& report) {
        const StopSignals stop([&] { report('s'); });
        const pid_t forked = ::fork();
        if (forked == 0) {
            ::raise(GetParam());
            ::_exit(0);
        }
        int status = 0;
        Require(::waitpid(forked, &status, 0) == forked);
        Require(WIFSIGNALED(status) && WTERMSIG(status) == GetParam());
        Require(!stop.HasCome());
        ::raise(GetParam());
        Require(stop.HasCome());
    });
    EXPECT_EQ(child.Next(), 's');
    EXPECT_EQ(child.Next(), '\0');
    EXPECT_EQ(child.End(), 0);
}

TEST_P(StopSignalsTest, AProcessMadeByFork_CanDestroyItsCopy) {
    Child child([&](const auto&) {
        auto stop = std::make_unique<StopSignals>([] {});
        const pid_t forked = ::fork();
        if (forked == 0) {
            stop.reset();
            ::raise(GetParam());
            ::_exit(0);
        }
        int status = 0;
        Require(::waitpid(forked, &status, 0) == forked);
        Require(WIFSIGNALED(status) && WTERMSIG(status) == GetParam());
        ::raise(GetParam());
        Require(stop->HasCome());
    });
    EXPECT_EQ(child.End(), 0);
}

TEST(StopSignalsOnceTest, TheFirstSignal_IsSeenAtOnceAndItsFunctionIsCalledBeforeTheEnd) {
    Child child([](const auto& report) {
        const StopSignals stop([&] { report('s'); });
        ::raise(SIGTERM);
        Require(stop.HasCome());
    });
    EXPECT_EQ(child.Next(), 's');
    EXPECT_EQ(child.End(), 0);
}

TEST(StopSignalsOnceTest, ASecondObject_IsRefusedWhileTheFirstExists) {
    Child child([](const auto&) {
        {
            const StopSignals stop([] {});
            try {
                const StopSignals another([] {});
                ::_exit(1);
            } catch (const std::logic_error&) {
            }
            ::raise(SIGTERM);
            Require(stop.HasCome()); // the refused one has changed nothing
        }
        const StopSignals again([] {});
        Require(!again.HasCome());
    });
    EXPECT_EQ(child.End(), 0);
}

TEST(StopSignalsOnceTest, SignalsToManyThreads_EndTheProgramAtTheSecond) {
    Child child([](const auto& report) {
        const StopSignals stop([&] { report('s'); });
        std::vector<std::thread> threads(4);
        for (auto& thread : threads) {
            thread = std::thread([] { WaitForever(); });
        }
        report('r');
        WaitForever();
    });
    EXPECT_EQ(child.Next(), 'r');
    // Two of the same may become one while the first is pending: these cannot.
    child.Send(SIGINT);
    child.Send(SIGTERM);
    const int end = child.End();
    EXPECT_TRUE(end == SIGINT || end == SIGTERM) << end;
}

TEST(StopSignalsOnceTest, ASignalWhileItComesOrGoes_IsTakenByItOrByTheProgramsHandler) {
    Child child([](const auto&) {
        ::signal(SIGTERM, CountSignal);
        constexpr int rounds = 500;
        std::atomic<int> called{0};
        std::atomic<int> round{0};
        std::thread sender([&] {
            for (int sent = 0; sent < rounds; ++sent) {
                while (round <= sent) {
                    std::this_thread::yield();
                }
                ::kill(::getpid(), SIGTERM);
            }
        });
        while (round < rounds) {
            ++round;
            while (taken + called < round) {
                const StopSignals stop([&] { ++called; });
            }
        }
        sender.join();
        Require(taken + called == rounds);
    });
    EXPECT_EQ(child.End(), 0);
}

} // namespace
