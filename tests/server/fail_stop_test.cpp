// Defends that a server that cannot go on ends at once, with a status of its own and one line.
#include "fail_stop.h"

#include "support/bus_test.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <new>
#include <stdexcept>
#include <thread>

namespace {

using bos::logger::BOSLogger;
using bos::logger::LogLevel;
using msgbus_server::FaultStatus;
using msgbus_server::FaultWatch;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;

struct Ended {
    int status = -1; ///< of the exit; -1: by a signal
    std::string errors;
};

/// Runs `body` in a process of its own.
Ended RunApart(const std::function<void()>& body) {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(ends[1], STDERR_FILENO);
        ::close(ends[0]);
        ::close(ends[1]);
        body();
        ::_exit(0);
    }
    ::close(ends[1]);
    Ended ended;
    char byte = 0;
    while (::read(ends[0], &byte, 1) == 1) {
        ended.errors += byte;
    }
    ::close(ends[0]);
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    ended.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return ended;
}

const std::string Ending = "; ending, so that the server can be started again\n";

TEST(FailStopTest, FailStop_EndsWithItsStatusBehindOneLine) {
    const Ended ended = RunApart([] { msgbus_server::FailStop("the reason"); });
    EXPECT_EQ(ended.status, FaultStatus);
    EXPECT_THAT(ended.errors, EndsWith(": the reason" + Ending));
    EXPECT_EQ(std::count(ended.errors.begin(), ended.errors.end(), '\n'), 1);
}

TEST(FailStopTest, FailStop_WhileStandardErrorAcceptsNothing_EndsAllTheSame) {
    const Ended ended = RunApart([] {
        int full[2];
        static_cast<void>(!::pipe(full));
        ::dup2(full[1], STDERR_FILENO);
        const std::string page(4096, 'x');
        for (int i = 0; i < 16; ++i) { // the capacity of a pipe
            static_cast<void>(!::write(STDERR_FILENO, page.data(), page.size()));
        }
        msgbus_server::FailStop("the reason");
    });
    EXPECT_EQ(ended.status, FaultStatus);
}

TEST(FailStopTest, AnAllocationThatFails_EndsTheProcess) {
    const Ended ended = RunApart([] {
        msgbus_server::FailStopOnFaults();
        std::get_new_handler()(); // as operator new does
    });
    EXPECT_EQ(ended.status, FaultStatus);
    EXPECT_THAT(ended.errors, EndsWith(": there is no memory left" + Ending));
}

TEST(FailStopTest, AnAllocationThatFails_OnAThreadThatHandlesIt_Throws) {
    const Ended ended = RunApart([] {
        msgbus_server::FailStopOnFaults();
        std::thread([] {
            msgbus_server::LetAllocationsFail();
            try {
                std::get_new_handler()();
            } catch (const std::bad_alloc&) {
                return;
            }
            ::_exit(1);
        }).join();
        ::_exit(0);
    });
    EXPECT_EQ(ended.status, 0);
}

TEST(FailStopTest, AnExceptionThatLeavesAThread_EndsTheProcessWithItsText) {
    const Ended ended = RunApart([] {
        msgbus_server::FailStopOnFaults();
        std::thread([] { throw std::runtime_error("what was wrong"); }).join();
    });
    EXPECT_EQ(ended.status, FaultStatus);
    EXPECT_THAT(ended.errors, EndsWith(": a thread has failed: what was wrong" + Ending));
}

TEST(FailStopTest, AFileThatReachesItsLimit_IsAFailedWrite) {
    const Ended ended = RunApart([] {
        msgbus_server::FailStopOnFaults();
        const rlimit none{0, 0};
        ::setrlimit(RLIMIT_FSIZE, &none);
        std::FILE* const file = std::tmpfile();
        ::_exit(::write(::fileno(file), "x", 1) == -1 && errno == EFBIG ? 0 : 1);
    });
    EXPECT_EQ(ended.status, 0);
}

std::vector<std::string>& Faults() {
    static std::vector<std::string> faults;
    return faults;
}

class FaultWatchTest : public test_support::BusTest {
protected:
    FaultWatchTest() { Faults().clear(); }

    static void Write(LogLevel level, const char* function, std::string message) {
        BOSLogger::RootLogger().LogImpl(level, "file", 1, function, message);
    }

    FaultWatch watch{[](std::string_view reason) noexcept { Faults().emplace_back(reason); }};
};

TEST_F(FaultWatchTest, LinesThatReportTheEndOfAThread_AreFaults) {
    Write(LogLevel::Error, "CreateThread", "Error during CreateThread");
    Write(LogLevel::Error, "EventsProcessor", "[MessageBus]: error occurred: no memory");
    Write(LogLevel::Error, "RunDynamicLoop", "Error during RunDynamicLoop");
    Write(LogLevel::Error, "RunStaticLoop", "Error during RunStaticLoop");
    Write(LogLevel::Error, "operator()", "operator(): Check failed. At f(1) ");
    Write(LogLevel::Error, "RunIpcDispatcher", "RunIpcDispatcher: Check failed - reqBuffer is null. At f(1) ");
    EXPECT_THAT(Faults(), ElementsAre("cannot start a thread of the bus", "the events thread has ended",
                                      "a worker of the bus has ended", "a worker of the bus has ended",
                                      "a dispatcher of the bus has ended", "there is no memory for requests"));
    EXPECT_THAT(journal.Logs(), SizeIs(6)) << "they are written";
}

TEST_F(FaultWatchTest, OtherLines_AreNone) {
    Write(LogLevel::Info, "EventsProcessor", "[MessageBus]: queue thread started");
    Write(LogLevel::Error, "Push", "[MessageBus]: Message queue is full");
    Write(LogLevel::Error, "RunIpcDispatcher", "RunIpcDispatcher: Check failed. At f(1) ");
    Write(LogLevel::Error, "operator()", "of another lambda");
    EXPECT_THAT(Faults(), IsEmpty());
    EXPECT_THAT(journal.Logs(), SizeIs(4));
}

TEST_F(FaultWatchTest, WithErrorsSwitchedOff_FaultsAreSeenAndNotWritten) {
    log.SetThreshold(5);
    EXPECT_TRUE(BOSLogger::RootLogger().IsEnabled(LogLevel::Error));
    EXPECT_FALSE(BOSLogger::RootLogger().IsEnabled(LogLevel::Warning));
    Write(LogLevel::Error, "CreateThread", "Error during CreateThread");
    EXPECT_THAT(Faults(), SizeIs(1));
    EXPECT_THAT(journal.Logs(), IsEmpty());
}

} // namespace
