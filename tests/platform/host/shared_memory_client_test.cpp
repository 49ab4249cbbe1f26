// Defends the shared-memory channel against clients that use their page, their bells and their socket against the
// protocol, and against clients and servers that are killed at each step of a call.
#include "process.h"
#include "raw_slot.h"

#include <sys/epoll.h>

#include <random>

namespace platform_test {
namespace {

using borven_host::SlotHalf;
using borven_host::SlotWord;

using RudeSlot = PlatformTest;
using KilledAt = PlatformTest;

constexpr std::uint32_t AllPieces = (1U << SlotHalf::PieceCount) - 1;

TEST_F(RudeSlot, ThatSendsAWrongSizeWord_IsAnsweredAndNeverReceived) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get());
    RawSlot client;
    for (const std::uint32_t size : {0U, 1U, 24U, 1055U, 1057U, NkSizeMask, NkErrorFlag | 1056U}) {
        Record request = RequestOf(1);
        request.header.size = size;
        EXPECT_EQ(KnStatusBadRecord, client.Call(request)) << size;
    }
    EXPECT_EQ(0, echoers.Served());
    EXPECT_EQ(KnStatusOk, client.Call(RequestOf(5))) << "the connection goes on";
}

TEST_F(RudeSlot, ThatSendsRandomRecords_GetsAnAnswerToEach) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get(), 2);
    const Handle other = ConnectStatic();
    RawSlot client;
    constexpr unsigned seed = 4711;
    std::mt19937 random(seed);
    for (int round = 0; round < 500; ++round) {
        for (std::byte& byte : client.Slot().request.record) {
            byte = static_cast<std::byte>(random());
        }
        client.Publish(static_cast<std::uint32_t>(random()));
        client.Ring();
        client.AwaitReply();
    }
    EXPECT_EQ(KnStatusOk, CallWith(other.Get(), 1));
}

TEST_F(RudeSlot, ThatChangesItsRecordMeanwhile_ChangesNothing) {
    const Handle server = RegisterStatic();
    RawSlot client;
    client.Send(RequestOf(5));
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
    client.Slot().request.record.fill(std::byte{0xFF});
    EXPECT_EQ(5, request.Value());
    EXPECT_EQ(KnStatusOk, Echo(server.Get(), request));
    Record response;
    EXPECT_EQ(KnStatusOk, client.AwaitReply(&response));
    EXPECT_EQ(6, response.Value());
}

TEST_F(RudeSlot, ThatSkipsASequenceNumber_IsEnded_AndOthersAreServed) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get(), 2);
    const Handle other = ConnectStatic();
    for (const std::uint32_t sequence : {2U, 1000U, 0xFFFFFFFFU}) {
        RawSlot client;
        client.PublishAs(sequence, AllPieces);
        client.Ring();
        EXPECT_TRUE(client.Socket().HasEnded()) << sequence;
    }
    EXPECT_EQ(KnStatusOk, CallWith(other.Get(), 1));
    EXPECT_EQ(1, echoers.Served());
}

TEST_F(RudeSlot, ThatPublishesWhileItsRequestIsServed_WaitsItsTurn) {
    const Handle server = RegisterStatic();
    RawSlot client;
    client.Send(RequestOf(1));
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
    Background second([&] {
        Record next;
        const auto status = Receive(server.Get(), next);
        return status == KnStatusOk ? Echo(server.Get(), next) : status;
    });
    second.AwaitBlocked();
    client.Send(RequestOf(2));
    const Handle other = ConnectStatic();
    EXPECT_EQ(KnStatusOk, CallWith(other.Get(), 7)) << "the second receiver must not get the new request";
    EXPECT_EQ(KnStatusOk, second.Get());
    EXPECT_EQ(KnStatusOk, Echo(server.Get(), request));
}

TEST_F(RudeSlot, ThatZeroesItsPage_HarmsItself) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get(), 2);
    const Handle other = ConnectStatic();
    RawSlot client;
    EXPECT_EQ(KnStatusOk, client.Call(RequestOf(1)));
    ASSERT_EQ(0, ::fallocate(client.File(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 4096));
    client.Ring();
    EXPECT_TRUE(client.Socket().HasEnded()) << "its sequence number went back";
    EXPECT_EQ(KnStatusOk, CallWith(other.Get(), 1));
}

TEST_F(RudeSlot, CanNeitherShrinkNorGrowItsMemory) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get());
    RawSlot client;
    EXPECT_NE(0, ::ftruncate(client.File(), 0));
    EXPECT_NE(0, ::ftruncate(client.File(), 8192));
    EXPECT_NE(0, ::fcntl(client.File(), F_ADD_SEALS, F_SEAL_WRITE));
    EXPECT_EQ(KnStatusOk, client.Call(RequestOf(1)));
}

TEST_F(RudeSlot, ThatFillsItsDoorbell_BlocksNoReply) {
    const Handle server = RegisterStatic();
    const Handle other = ConnectStatic();
    RawSlot client;
    // In this state a write of any number but 0 would block: the counter is full, and O_NONBLOCK is off.
    ASSERT_EQ(0, ::fcntl(client.Doorbell(), F_SETFL, 0));
    const std::uint64_t most = 0xFFFFFFFFFFFFFFFE - 1;
    ASSERT_EQ(static_cast<ssize_t>(sizeof most), ::write(client.Doorbell(), &most, sizeof most));
    client.Slot().request.hint.store(1); // as if asleep
    client.Send(RequestOf(1));
    const Echoers echoers(server.Get());
    EXPECT_EQ(KnStatusOk, client.AwaitReply());
    EXPECT_EQ(KnStatusOk, CallWith(other.Get(), 1));
}

TEST_F(RudeSlot, ThatFillsItsBell_IsHeardAllTheSame) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get());
    RawSlot client;
    client.Ring(0xFFFFFFFFFFFFFFFE - 1);
    EXPECT_EQ(KnStatusOk, client.Call(RequestOf(1)));
}

TEST_F(RudeSlot, ThatLiesAboutSleeping_GetsItsReplies) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get());
    RawSlot client;
    for (std::uint32_t i = 1; i <= 100; ++i) {
        client.Slot().request.hint.store(i);
        EXPECT_EQ(KnStatusOk, client.Call(RequestOf(1)));
    }
}

TEST_F(RudeSlot, ThatKeepsRinging_IsEnded_AndOthersAreServed) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get(), 2);
    const Handle other = ConnectStatic();
    RawSlot client;
    Await("the end of a client that rings without a request", [&] {
        client.Ring();
        EXPECT_EQ(KnStatusOk, CallWith(other.Get(), 1));
        pollfd ended{client.Socket().Get(), POLLRDHUP, 0};
        return ::poll(&ended, 1, 0) == 1;
    });
}

TEST_F(RudeSlot, ThatNeverRings_IsServedWhenSomebodyLooks_AndHarmsNobody) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get(), 2);
    const Handle other = ConnectStatic();
    RawSlot client;
    client.Publish(client.Slot().request.Put(&static_cast<const Record&>(RequestOf(1)), NkRecordSize));
    EXPECT_EQ(KnStatusOk, CallWith(other.Get(), 1));
    client.Ring();
    EXPECT_EQ(KnStatusOk, client.AwaitReply());
}

TEST_F(RudeSlot, ThatTalksOnItsSocket_IsNotHeard) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get());
    RawSlot client;
    const Record request = RequestOf(1);
    while (client.Socket().Send(&request, sizeof request, MSG_DONTWAIT)) {
    }
    EXPECT_EQ(0, echoers.Served());
    EXPECT_EQ(KnStatusOk, client.Call(request));
    EXPECT_EQ(KnStatusOk, CallWith(ConnectStatic().Get(), 1));
}

TEST_F(RudeSlot, ThatScribblesAtRandom_HarmsNobodyElse) {
    const Handle server = RegisterStatic();
    const Echoers echoers(server.Get(), 4);
    const Handle other = ConnectStatic();
    constexpr unsigned seed = 99;
    std::mt19937 random(seed);
    for (int round = 0; round < 30; ++round) {
        RawSlot client;
        auto* const words = reinterpret_cast<std::atomic<std::uint32_t>*>(&client.Slot());
        for (int i = 0; i < 200; ++i) {
            words[random() % 1024].store(static_cast<std::uint32_t>(random()) & (i % 2 == 0 ? 3U : 0xFFFFFFFFU));
            client.Ring();
        }
        std::int64_t value = 0;
        EXPECT_EQ(KnStatusOk, CallWith(other.Get(), round, &value));
        EXPECT_EQ(round + 1, value);
    }
}

/// Runs `steps` in a process of its own, which then kills itself; waits for its death.
template <typename Steps>
void InAProcessThatIsKilled(const Steps& steps) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        steps();
        ::raise(SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    ASSERT_TRUE(WIFSIGNALED(status));
}

/// A server with one steady client. At the end it checks that the clients killed meanwhile left nothing behind.
class Bystander final {
public:
    Bystander() : server(RegisterStatic()), steady(ConnectStatic()), echoers(server.Get(), 2) {
        EXPECT_EQ(KnStatusOk, CallWith(steady.Get(), 1));
        before = OpenDescriptors();
    }
    ~Bystander() {
        EXPECT_EQ(KnStatusOk, CallWith(steady.Get(), 1));
        Await("the descriptors of the dead clients to close", [this] { return OpenDescriptors() <= before; });
    }
    int Served() const { return echoers.Served(); }

private:
    const Handle server;
    const Handle steady;
    const Echoers echoers;
    std::size_t before = 0;
};

TEST_F(KilledAt, Joined) {
    const Bystander others;
    InAProcessThatIsKilled([] {
        RawSlot client;
        ::raise(SIGKILL);
    });
}

TEST_F(KilledAt, SlotClaimed_RecordHalfCopied) {
    const Bystander others;
    InAProcessThatIsKilled([] {
        RawSlot client;
        client.Slot().request.record.fill(std::byte{1});
        ::raise(SIGKILL);
    });
}

TEST_F(KilledAt, RequestPublished_BellNotRung) {
    const Bystander others;
    InAProcessThatIsKilled([] {
        RawSlot client;
        const Record request = RequestOf(1);
        client.Publish(client.Slot().request.Put(&request, sizeof request));
        ::raise(SIGKILL);
    });
}

TEST_F(KilledAt, BellRung) {
    const Bystander others;
    InAProcessThatIsKilled([] {
        RawSlot client;
        client.Send(RequestOf(1));
        ::raise(SIGKILL);
    });
}

TEST_F(KilledAt, ReplyVisible_NotTaken) {
    const Bystander others;
    InAProcessThatIsKilled([] {
        RawSlot client;
        client.Send(RequestOf(1));
        while (!client.IsAnswered()) {
        }
        ::raise(SIGKILL);
    });
    EXPECT_GE(others.Served(), 2);
}

TEST_F(KilledAt, RequestTaken_TheReplyReportsIt) {
    const Handle server = RegisterStatic();
    Process client({"connect", "line", "call", "1"});
    EXPECT_EQ("connect 0", client.Hear());
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
    client.Kill();
    EXPECT_EQ(KnStatusPeerGone, Echo(server.Get(), request));
    const Handle next = ConnectStatic();
    Background call([&] { return CallWith(next.Get(), 2); });
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
    EXPECT_EQ(KnStatusOk, Echo(server.Get(), request));
    EXPECT_EQ(KnStatusOk, call.Get());
}

TEST_F(KilledAt, ServerHasTakenTheRequest_TheCallerLearnsIt) {
    Process server({"register", "line", "receive", "wait"});
    EXPECT_EQ("register 1", server.Hear());
    {
        const Handle client = ConnectStatic();
        Background call([&] { return CallWith(client.Get(), 1); });
        EXPECT_EQ("receive 0", server.Hear());
        server.Kill();
        EXPECT_EQ(KnStatusClosed, call.Get());
        EXPECT_EQ(KnStatusClosed, CallWith(client.Get(), 2)) << "the connection stays closed";
    }
    Reclaim();
}

TEST_F(KilledAt, ServerHasNotTakenTheRequest_TheCallerLearnsIt) {
    Process server({"register", "line", "wait"});
    EXPECT_EQ("register 1", server.Hear());
    {
        const Handle client = ConnectStatic();
        Background call([&] { return CallWith(client.Get(), 1); });
        call.AwaitBlocked();
        server.Kill();
        EXPECT_EQ(KnStatusClosed, call.Get());
    }
    Reclaim();
}

TEST_F(KilledAt, ServerSpins_TheCallerLearnsIt) {
    Process server({"register", "line", "serve", "wait"});
    EXPECT_EQ("register 1", server.Hear());
    EXPECT_EQ("serve 0", server.Hear());
    {
        const Handle client = ConnectStatic();
        std::atomic<int> calls{0};
        Background calling([&] {
            std::int32_t status = KnStatusOk;
            while ((status = CallWith(client.Get(), 1)) == KnStatusOk) {
                ++calls;
            }
            return status;
        });
        Await("some calls", [&] { return calls > 5000; });
        server.Kill();
        EXPECT_EQ(KnStatusClosed, calling.Get());
    }
    Reclaim();
}

TEST_F(KilledAt, ServerIsStopped_TheClientMayStillClose) {
    Process server({"register", "line", "serve", "wait"});
    EXPECT_EQ("register 1", server.Hear());
    EXPECT_EQ("serve 0", server.Hear());
    Handle client = ConnectStatic();
    EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1));
    server.Signal(SIGSTOP);
    server.AwaitState('T');
    const KnHandle number = client.Get();
    Background call([number] { return CallWith(number, 1); });
    call.AwaitBlocked();
    EXPECT_EQ(KnStatusOk, client.Close());
    EXPECT_EQ(KnStatusClosed, call.Get());
    server.Kill();
    Reclaim();
}

} // namespace
} // namespace platform_test
