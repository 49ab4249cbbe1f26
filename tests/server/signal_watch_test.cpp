// Defends the two signals: the first one asks for a stop, on a thread of its own, the second one ends the process.
#include "signal_watch.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <future>

namespace {

using msgbus_server::SignalWatch;

/// A process that watches its signals and writes the number of the first one to its standard output.
class WatchingProcess final {
public:
    WatchingProcess() {
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        id = ::fork();
        if (id == 0) {
            SignalWatch::BlockSignals();
            const auto report = [out = ends[1]](char what) { static_cast<void>(!::write(out, &what, 1)); };
            const SignalWatch watch([&](int number) { report(static_cast<char>(number)); });
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

TEST_P(SignalWatchTest, TheSecondSignal_EndsTheProcess) {
    const WatchingProcess process;
    process.Send(SIGTERM);
    EXPECT_EQ(process.Next(), SIGTERM);
    process.Send(GetParam());
    ASSERT_EQ(process.Next(), -1);
    siginfo_t ended{};
    EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(process.id), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(ended.si_code, CLD_KILLED);
    EXPECT_EQ(ended.si_status, GetParam());
}

} // namespace
