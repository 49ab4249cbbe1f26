// Defends the signals: the first one asks for a stop, on a thread of its own, one that comes a second later ends the
// process, and SIGUSR1 asks for a drain.
#include "signal_watch.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <future>
#include <string>

namespace {

using msgbus_server::SignalWatch;

/// A process that watches its signals and writes the number of the first one to its standard output.
class WatchingProcess final {
public:
    explicit WatchingProcess(std::chrono::nanoseconds sameRequest = SignalWatch::SameRequest) {
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        id = ::fork();
        if (id == 0) {
            SignalWatch::BlockSignals();
            const auto report = [out = ends[1]](char what) { static_cast<void>(!::write(out, &what, 1)); };
            const SignalWatch watch([&](int number) { report(static_cast<char>(number)); }, [&] { report(SIGUSR1); },
                                    sameRequest);
            report(0);
            std::promise<void>().get_future().wait();
        }
        ::close(ends[1]);
        reports = ends[0];
        EXPECT_EQ(Next(), 0);
    }
    ~WatchingProcess() {
        ::kill(id, SIGKILL);
        ::waitpid(id, nullptr, 0);
        ::close(reports);
    }
    WatchingProcess(const WatchingProcess&) = delete;
    WatchingProcess& operator=(const WatchingProcess&) = delete;

    void Send(int number) const { EXPECT_EQ(::kill(id, number), 0); }
    /// Returns: the next report; -1 at the end of the process; -2 when there is neither for a long time.
    int Next() const {
        constexpr int patienceMs = 30000;
        pollfd waited{reports, POLLIN, 0};
        char what = 0;
        return ::poll(&waited, 1, patienceMs) != 1 ? -2 : ::read(reports, &what, 1) == 1 ? what : -1;
    }

    /// Waits until the process has taken every signal.
    void AwaitNoSignalPending() const {
        const auto isPending = [this] {
            std::ifstream status("/proc/" + std::to_string(id) + "/status");
            for (std::string line; std::getline(status, line);) {
                if (line.starts_with("ShdPnd:")) {
                    return line.find_first_not_of("0\t ", 7) != std::string::npos;
                }
            }
            return false;
        };
        while (isPending()) {
            ::usleep(1000);
        }
    }

    bool HasEnded() const {
        siginfo_t ended{};
        EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(id), &ended, WEXITED | WNOWAIT | WNOHANG), 0);
        return ended.si_pid != 0;
    }

    pid_t id = -1;

private:
    int reports = -1;
};

class SignalWatchTest : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Either, SignalWatchTest, testing::Values(SIGTERM, SIGINT));

TEST_P(SignalWatchTest, TheFirstSignal_IsReportedAndTheProcessGoesOn) {
    const WatchingProcess process;
    process.Send(GetParam());
    EXPECT_EQ(process.Next(), GetParam());
    EXPECT_EQ(::waitpid(process.id, nullptr, WNOHANG), 0);
}

TEST_P(SignalWatchTest, ASignalSoonBehindTheFirst_IsTheSameRequest) {
    const WatchingProcess process(std::chrono::hours(1)); // however slow the machine is
    process.Send(SIGTERM);
    EXPECT_EQ(process.Next(), SIGTERM);
    for (int times = 0; times < 100; ++times) {
        process.Send(GetParam());
        process.Send(SIGUSR1);
        process.AwaitNoSignalPending();
    }
    EXPECT_EQ(::waitpid(process.id, nullptr, WNOHANG), 0);
}

TEST_P(SignalWatchTest, ADrain_IsReportedEachTimeUntilTheStop) {
    const WatchingProcess process;
    process.Send(SIGUSR1);
    EXPECT_EQ(process.Next(), SIGUSR1);
    process.Send(SIGUSR1);
    EXPECT_EQ(process.Next(), SIGUSR1);
    process.Send(GetParam());
    EXPECT_EQ(process.Next(), GetParam());
}

TEST_P(SignalWatchTest, ASignalMoreThanASecondLater_EndsTheProcess) {
    const WatchingProcess process;
    process.Send(SIGTERM);
    EXPECT_EQ(process.Next(), SIGTERM);
    const auto began = std::chrono::steady_clock::now();
    while (!process.HasEnded()) {
        process.Send(SIGUSR1);
        process.Send(GetParam());
        ::usleep(10000);
    }
    EXPECT_GT(std::chrono::steady_clock::now() - began, SignalWatch::SameRequest / 2);
    ASSERT_EQ(process.Next(), -1);
    siginfo_t ended{};
    EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(process.id), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(ended.si_code, CLD_KILLED);
    EXPECT_EQ(ended.si_status, GetParam());
}

} // namespace
