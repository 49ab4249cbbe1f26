// Defends the CPUs of the threads that call and receive: they are their own again whenever a call or a receive has
// returned, and a thread that was placed keeps its place.
#include "records/shared_memory_connection.h"

#include "kn/status.h"
#include "names/handshake.h"
#include "records/event_fd.h"
#include "records/shared_memory_channel.h"
#include "support.h"
#include "support/cpus.h"

#include <fcntl.h>
#include <sys/socket.h>

namespace platform_test {
namespace {

using borven_host::Channel;
using borven_host::Connection;
using borven_host::LayoutVersion;
using borven_host::MakeBell;
using borven_host::ReceiverPlace;
using borven_host::Ring;
using borven_host::SharedMemoryEnds;
using borven_host::SharedMemoryRegion;
using borven_host::SharedSlot;
using borven_host::SlotWord;
using borven_host::UniqueFd;
using borven_host::WakeHint;
using test_support::Cpus;

/// What a thread on `cpu` has left when it woke another one `delay` ago.
WakeHint HintFrom(int cpu, std::chrono::microseconds delay) {
    const std::uint32_t now = WakeHint::Now().Raw() & ~0xFFU;
    return WakeHint((now - (static_cast<std::uint32_t>(delay.count()) << 8)) | static_cast<std::uint32_t>(cpu + 1));
}

/// A connection to a server that the test plays: it decides when the caller is woken, and what it learns.
class CallPlaceTest : public test_support::CpusTest {
protected:
    CallPlaceTest() {
        std::array<int, 2> pair{};
        EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()));
        serverSocket = UniqueFd(pair[0]);
        UniqueFd file;
        EXPECT_EQ(KnStatusOk, SharedMemoryRegion::Create(LayoutVersion, ends.region, file));
        ends.bell = MakeBell();
        ends.doorbell = MakeBell();
        SharedMemoryEnds clients{ends.region, Duplicate(ends.bell), Duplicate(ends.doorbell)};
        connection =
            std::make_shared<Connection>(UniqueFd(pair[1]), std::make_shared<const UniqueFd>(), std::move(clients));
    }

    static UniqueFd Duplicate(const UniqueFd& fd) { return UniqueFd(::fcntl(fd.Get(), F_DUPFD_CLOEXEC, 3)); }

    SharedSlot& Slot() const { return ends.region.Slot(); }

    /// One call after a pause, on a thread of its own kind. Returns: its status.
    std::int32_t Call() const {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        const Record request = RequestOf(1);
        Record response;
        return connection->Call(&request.header, &response.header);
    }

    void AwaitSleepingCall() {
        ++calls;
        Await("the caller should sleep", [this] { return Slot().request.hint.load() == calls; });
        std::this_thread::sleep_for(std::chrono::milliseconds(3)); // long enough to count
    }

    /// Wakes the caller as if that had taken `delay`.
    void Reply(std::chrono::microseconds delay) {
        Slot().reply.wake.store(HintFrom(common::CurrentCpu(), delay).Raw());
        Slot().reply.word.store(SlotWord(calls, 0).Raw());
        Ring(ends.doorbell);
    }

    /// Answers the calls of `caller`, which makes one after the other, until one sleeps confined.
    void AwaitConfined(const std::atomic<pid_t>& caller) {
        while (true) {
            AwaitSleepingCall();
            if (Cpus::Of(caller).Count() == 1) {
                return;
            }
            ASSERT_LT(calls, 1000U) << "the caller should be confined by now";
            Reply(std::chrono::microseconds(500));
        }
    }

    SharedMemoryEnds ends;
    UniqueFd serverSocket;
    std::shared_ptr<Connection> connection;
    std::uint32_t calls = 0;
};

TEST_F(CallPlaceTest, ACallerThatSleepsConfined_HasAllItsCpusAfterEachCall) {
    std::atomic<pid_t> id{0};
    std::atomic<bool> isOver{false};
    Background caller([&] {
        id = ::gettid();
        while (!isOver) {
            EXPECT_EQ(KnStatusOk, Call());
            EXPECT_EQ(all, Cpus::Of());
        }
    });
    AwaitConfined(id);
    isOver = true;
    Reply(std::chrono::microseconds(10));
}

TEST_F(CallPlaceTest, ACallerThatSleepsConfined_WhenTheServerEnds_HasAllItsCpus) {
    std::atomic<pid_t> id{0};
    Background caller([&] {
        id = ::gettid();
        while (Call() == KnStatusOk) {
            EXPECT_EQ(all, Cpus::Of());
        }
        EXPECT_EQ(all, Cpus::Of());
    });
    AwaitConfined(id);
    serverSocket.Reset();
}

TEST_F(CallPlaceTest, ACallerThatSleepsConfined_WhenItsEndIsClosed_HasAllItsCpus) {
    std::atomic<pid_t> id{0};
    Background caller([&] {
        id = ::gettid();
        while (Call() == KnStatusOk) {
        }
        EXPECT_EQ(all, Cpus::Of());
    });
    AwaitConfined(id);
    connection->Close();
}

TEST_F(CallPlaceTest, ACallerThatSleepsForLong_IsLetGoInItsSleep) {
    std::atomic<pid_t> id{0};
    Background caller([&] {
        id = ::gettid();
        while (Call() == KnStatusOk) {
        }
    });
    AwaitConfined(id);
    Await("the caller should be let go", [&] { return Cpus::Of(id) == all; });
    serverSocket.Reset();
}

TEST_F(CallPlaceTest, ACallerThatIsPlacedInItsSleep_StaysThere) {
    std::atomic<pid_t> id{0};
    std::atomic<bool> isPlaced{false};
    std::optional<Cpus> given;
    Background caller([&] {
        id = ::gettid();
        while (!isPlaced) {
            EXPECT_EQ(KnStatusOk, Call());
        }
        EXPECT_EQ(*given, Cpus::Of());
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(KnStatusOk, Call());
            EXPECT_EQ(*given, Cpus::Of());
        }
    });
    AwaitConfined(id);
    given = Cpus::Of(id) == Cpus::Only(0) ? Cpus::Only(1) : Cpus::Only(0);
    given->GiveTo(id);
    isPlaced = true;
    Reply(std::chrono::microseconds(10));
    for (int i = 0; i < 10; ++i) {
        AwaitSleepingCall();
        EXPECT_EQ(*given, Cpus::Of(id));
        Reply(std::chrono::microseconds(10));
    }
}

TEST_F(CallPlaceTest, ACallerWithCpusOfItsOwn_SleepsOnThem) {
    std::atomic<pid_t> id{0};
    std::atomic<bool> isOver{false};
    Background learning([&] {
        id = ::gettid();
        while (!isOver) {
            EXPECT_EQ(KnStatusOk, Call());
        }
    });
    AwaitConfined(id);
    isOver = true;
    Reply(std::chrono::microseconds(10));
    learning.Get();

    std::atomic<pid_t> placedId{0};
    Background placed([&] {
        Cpus::Only(1).GiveTo(0);
        placedId = ::gettid();
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(KnStatusOk, Call());
            EXPECT_EQ(Cpus::Only(1), Cpus::Of());
        }
    });
    for (int i = 0; i < 10; ++i) {
        AwaitSleepingCall();
        EXPECT_EQ(Cpus::Only(1), Cpus::Of(placedId));
        Reply(std::chrono::microseconds(10));
    }
}

class ReceivePlaceTest : public test_support::CpusTest {
protected:
    /// Receives on a thread that has learnt to sleep where a thread on CPU 1 wakes it. Returns: the status.
    std::int32_t ReceiveConfined() {
        auto& place = ReceiverPlace::OfThisThread();
        bool isConfined = false;
        for (int sleeps = 0; sleeps < 1000 && !isConfined; ++sleeps) {
            place.EnterSleep();
            isConfined = place.IsConfined();
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            // As if it had taken long to wake up where it was free. It does not learn how long that takes confined.
            place.LeaveSleep(isConfined ? WakeHint(0) : HintFrom(1, std::chrono::microseconds(500)));
        }
        EXPECT_TRUE(isConfined);
        Record request;
        NkSetSize(request.header, NkRecordSize);
        id = ::gettid();
        return channel.Receive(&request.header);
    }

    /// Its first sleep ends at once, with the ring that a new bell has; then it blocks.
    void AwaitConfined(const Background<void>& receiver) {
        Await("the receiver should begin", [this] { return id != 0; });
        receiver.AwaitBlocked();
        EXPECT_EQ(Cpus::Only(1), Cpus::Of(id));
    }

    Channel channel{Channel::DeadClient::ReplyAnswersOk};
    std::atomic<pid_t> id{0};
};

TEST_F(ReceivePlaceTest, AReceiverThatSleepsForLong_IsLetGoInItsSleep) {
    Background receiver([this] { EXPECT_EQ(KnStatusClosed, ReceiveConfined()); });
    AwaitConfined(receiver);
    Await("the receiver should be let go", [this] { return Cpus::Of(id) == all; });
    EXPECT_FALSE(receiver.IsDone());
    channel.Close();
}

TEST_F(ReceivePlaceTest, AReceiverThatSleepsConfined_WhenTheChannelCloses_HasAllItsCpus) {
    Background receiver([this] {
        EXPECT_EQ(KnStatusClosed, ReceiveConfined());
        EXPECT_EQ(all, Cpus::Of());
    });
    AwaitConfined(receiver);
    channel.Close();
}

TEST_F(ReceivePlaceTest, AReceiverThatIsPlacedInItsSleep_StaysThere) {
    Background receiver([this] {
        EXPECT_EQ(KnStatusClosed, ReceiveConfined());
        EXPECT_EQ(Cpus::Only(0), Cpus::Of());
    });
    AwaitConfined(receiver);
    Cpus::Only(0).GiveTo(id);
    channel.Close();
}

} // namespace
} // namespace platform_test
