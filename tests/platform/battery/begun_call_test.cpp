// Defends nk/begun_call.h: a call in two steps is a call, a limit that passes loses nothing, and the descriptor says
// when there is something to finish.
#include "nk/begun_call.h"

#include "deferring.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/wait.h>

#include <random>

namespace platform_test {
namespace {

constexpr std::uint32_t HourMs = 3'600'000;

std::int32_t Begin(KnHandle client, const Record& request, std::uint32_t timeoutMs = PatienceMs) {
    NkBosTransport transport = TransportOf(client);
    return NkBeginCall(&transport, &request.header, timeoutMs);
}

std::int32_t Begin(const Handle& client, std::int64_t value = 1, std::uint32_t timeoutMs = PatienceMs) {
    return Begin(client.Get(), RequestOf(value), timeoutMs);
}

Returned Finish(KnHandle client, std::uint32_t timeoutMs = PatienceMs) {
    NkBosTransport transport = TransportOf(client);
    Record response;
    Returned returned;
    returned.status = NkFinishCall(&transport, &response.header, timeoutMs);
    returned.value = response.Value();
    return returned;
}

Returned Finish(const Handle& client, std::uint32_t timeoutMs = PatienceMs) {
    return Finish(client.Get(), timeoutMs);
}

std::int32_t Abandon(const Handle& client) {
    NkBosTransport transport = TransportOf(client.Get());
    return NkAbandonCall(&transport);
}

int DescriptorOf(const Handle& client) {
    int descriptor = -1;
    EXPECT_EQ(KnStatusOk, NkCallDescriptor(client.Get(), &descriptor));
    EXPECT_GE(descriptor, 0);
    return descriptor;
}

bool IsReadable(int descriptor, std::uint32_t withinMs = 0) {
    pollfd polled{descriptor, POLLIN, 0};
    EXPECT_LE(0, ::poll(&polled, 1, static_cast<int>(withinMs)));
    EXPECT_FALSE(polled.revents & POLLNVAL);
    return (polled.revents & POLLIN) != 0;
}

bool BecomesReadable(int descriptor) {
    return IsReadable(descriptor, PatienceMs);
}

/// Looks in vain until the descriptor is not readable any more.
void FindNothing(const Handle& client, int descriptor) {
    Await("a finish in vain to end what is readable", [&] {
        EXPECT_EQ(KnStatusTimedOut, Finish(client, 0).status);
        return !IsReadable(descriptor);
    });
}

/// What a program has that waits for many things.
class UsersEpoll final {
public:
    explicit UsersEpoll(int descriptor) {
        epoll_event readable{};
        readable.events = EPOLLIN;
        EXPECT_EQ(0, ::epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &readable));
    }
    UsersEpoll(UsersEpoll&&) = delete;
    ~UsersEpoll() { ::close(epoll); }

    bool Wait(std::uint32_t timeoutMs = PatienceMs) const {
        epoll_event event{};
        const int count = ::epoll_wait(epoll, &event, 1, static_cast<int>(timeoutMs));
        EXPECT_LE(0, count);
        return count == 1;
    }

private:
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
};

class BegunCallTest : public DeferredReplyTest {
protected:
    Record ReceiveOne() const {
        Record request;
        EXPECT_EQ(KnStatusOk, Receive(Channel(), request));
        return request;
    }
    /// Receives the request of a call with `value`, and answers with `answer`.
    void Serve(std::int64_t value, std::int64_t answer) const {
        EXPECT_EQ(value, ReceiveOne().Value());
        EXPECT_EQ(KnStatusOk, Reply(Channel(), RequestOf(answer)));
    }
    /// Begins and finishes a call with 1. Returns: its deferred reply, which was `value` with these offers.
    NkDeferredReply CallWithOffers(const Handle& client, std::int64_t value,
                                   const std::vector<std::int64_t>& ahead) const {
        EXPECT_EQ(KnStatusOk, Begin(client));
        const NkDeferredReply deferred = ReceiveAndDefer();
        std::size_t put = 0;
        EXPECT_EQ(KnStatusOk, Answer(deferred, value, ahead, &put));
        EXPECT_EQ(ahead.size(), put);
        EXPECT_EQ(OkWith(value), Finish(client));
        return deferred;
    }
    void CloseChannel() const { ASSERT_EQ(KnStatusOk, KnHandleClose(Channel())); }
};

INSTANTIATE_TEST_SUITE_P(, BegunCallTest, testing::Values(ChannelKind::Static, ChannelKind::Dynamic), NameOf);

// One thread is client and server: a call that is under way needs none.
TEST_P(BegunCallTest, ToBeginAndFinish_IsToCall) {
    const Handle client = Connect();
    for (std::int64_t round = 0; round < 3; ++round) {
        Record request = RequestOf(round);
        request.body.back() = std::byte{5};
        const Record sent = request;
        ASSERT_EQ(KnStatusOk, Begin(client.Get(), request));
        request = RequestOf(77); // it is not needed any more
        const Record received = ReceiveOne();
        EXPECT_EQ(0, std::memcmp(&sent, &received, sizeof sent));
        Record reply = RequestOf(round + 10);
        reply.body.back() = std::byte{6};
        EXPECT_EQ(KnStatusOk, Reply(Channel(), reply));
        NkBosTransport transport = TransportOf(client.Get());
        Record response;
        EXPECT_EQ(KnStatusOk, NkFinishCall(&transport, &response.header, PatienceMs));
        EXPECT_EQ(0, std::memcmp(&reply, &response, sizeof reply));
    }
    Calling call(client, 5);
    Serve(5, 6);
    EXPECT_EQ(OkWith(6), call.Get());
}

TEST_P(BegunCallTest, AFinishThatTimesOut_LeavesTheCallUnderWay) {
    const Handle client = Connect();
    ASSERT_EQ(KnStatusOk, Begin(client, 1));
    const auto timesOut = [&](std::uint32_t timeoutMs) {
        EXPECT_EQ(KnStatusTimedOut, Finish(client, timeoutMs).status);
    };
    timesOut(0);
    timesOut(1);
    const NkDeferredReply deferred = ReceiveAndDefer();
    timesOut(20);
    timesOut(0);
    EXPECT_EQ(KnStatusOk, Answer(deferred, 2));
    EXPECT_EQ(OkWith(2), Finish(client));
    ASSERT_EQ(KnStatusOk, Begin(client, 3));
    Serve(3, 4); // the first one was sent once
    EXPECT_EQ(OkWith(4), Finish(client));
}

TEST_P(BegunCallTest, AReplyThatHasCome_IsReturnedByOneLook) {
    const Handle client = Connect();
    for (std::int64_t round = 0; round < 3; ++round) {
        ASSERT_EQ(KnStatusOk, Begin(client, round, 0));
        Serve(round, round + 10);
        EXPECT_EQ(OkWith(round + 10), Finish(client, 0));
    }
}

TEST_P(BegunCallTest, AFinishThatWaits_ReturnsWhenTheReplyComes) {
    const Handle client = Connect();
    for (const std::uint32_t timeoutMs : {PatienceMs, NkForever}) {
        ASSERT_EQ(KnStatusOk, Begin(client));
        Background finish([&, handle = client.Get()] { return Finish(handle, timeoutMs); });
        const NkDeferredReply deferred = ReceiveAndDefer();
        finish.AwaitBlocked();
        EXPECT_EQ(KnStatusOk, Answer(deferred, 2));
        EXPECT_EQ(OkWith(2), finish.Get());
    }
}

TEST_P(BegunCallTest, OneThreadBegins_AnotherFinishes) {
    const Handle client = Connect();
    const Echoers echoers(Channel());
    for (std::int64_t round = 0; round < 20; ++round) {
        Background begin([&] { return Begin(client, round); });
        ASSERT_EQ(KnStatusOk, begin.Get());
        Background finish([handle = client.Get()] { return Finish(handle); });
        ASSERT_EQ(OkWith(round + 1), finish.Get());
    }
}

TEST_P(BegunCallTest, WithoutABegunCall_NothingIsFinishedOrAbandoned) {
    const Handle client = Connect();
    const auto isRefused = [&] {
        EXPECT_EQ(KnStatusInvalidArgument, Finish(client, 0).status);
        EXPECT_EQ(KnStatusInvalidArgument, Finish(client, NkForever).status);
        EXPECT_EQ(KnStatusInvalidArgument, Abandon(client));
    };
    isRefused();
    Calling call(client);
    const NkDeferredReply deferred = ReceiveAndDefer();
    isRefused(); // that one was not begun
    EXPECT_EQ(KnStatusOk, Answer(deferred, 2));
    EXPECT_EQ(OkWith(2), call.Get());
    ASSERT_EQ(KnStatusOk, Begin(client));
    Serve(1, 2);
    EXPECT_EQ(OkWith(2), Finish(client));
    isRefused();
    ASSERT_EQ(KnStatusOk, Begin(client, 3));
    EXPECT_EQ(KnStatusOk, Abandon(client));
    isRefused();
    Serve(3, 4);
    isRefused();
}

TEST_P(BegunCallTest, WhatIsNoClientEnd_IsRefused) {
    const Handle client = Connect();
    NkBosTransport transport = TransportOf(client.Get());
    Record record = RequestOf(1);
    EXPECT_EQ(KnStatusInvalidArgument, NkBeginCall(&transport, nullptr, 0));
    EXPECT_EQ(KnStatusOk, Begin(client));
    EXPECT_EQ(KnStatusInvalidArgument, NkFinishCall(&transport, nullptr, 0));
    NkBosTransport zeroed{};
    NkBosTransport unknown = TransportOf(KnInvalidHandle);
    NkBosTransport server = TransportOf(Channel());
    for (NkBosTransport* const wrong : {static_cast<NkBosTransport*>(nullptr), &zeroed, &unknown, &server}) {
        EXPECT_EQ(KnStatusInvalidArgument, NkBeginCall(wrong, &record.header, 0));
        EXPECT_EQ(KnStatusInvalidArgument, NkFinishCall(wrong, &record.header, 0));
        EXPECT_EQ(KnStatusInvalidArgument, NkAbandonCall(wrong));
    }
    int descriptor = -7;
    EXPECT_EQ(KnStatusInvalidArgument, NkCallDescriptor(client.Get(), nullptr));
    EXPECT_EQ(KnStatusInvalidArgument, NkCallDescriptor(KnInvalidHandle, &descriptor));
    EXPECT_EQ(KnStatusInvalidArgument, NkCallDescriptor(Channel(), &descriptor));
    EXPECT_EQ(-7, descriptor);
    Serve(1, 2);
    EXPECT_EQ(OkWith(2), Finish(client)) << "the call was still to be finished";
}

TEST_P(BegunCallTest, AStatusInPlaceOfAReply_EndsTheCall) {
    const Handle client = Connect();
    const auto isOver = [&] { EXPECT_EQ(KnStatusInvalidArgument, Finish(client, 0).status); };
    ASSERT_EQ(KnStatusOk, Begin(client));
    Background([&] { ReceiveOne(); }).Get(); // a thread that ends without a reply
    EXPECT_EQ(KnStatusAbandoned, Finish(client).status);
    isOver();

    const Echoers echoers(Channel());
    Record record = RequestOf(1);
    NkSetSize(record.header, NkRecordSize - 1);
    ASSERT_EQ(KnStatusOk, Begin(client.Get(), record));
    EXPECT_EQ(KnStatusBadRecord, Finish(client).status);
    isOver();
    ASSERT_EQ(KnStatusOk, Begin(client, 5));
    EXPECT_EQ(OkWith(6), Finish(client));
    EXPECT_EQ(1, echoers.Served());
}

TEST_P(BegunCallTest, HasTheTurn_UntilItIsFinished) {
    const Handle client = Connect();
    ASSERT_EQ(KnStatusOk, Begin(client, 1));
    EXPECT_EQ(KnStatusTimedOut, Begin(client, 100, 0));
    EXPECT_EQ(KnStatusTimedOut, Begin(client, 101, 1));
    Background other([&] { return Begin(client, 102, 20); });
    EXPECT_EQ(KnStatusTimedOut, other.Get());
    Calling call(client, 2);
    call.AwaitBlocked();
    Serve(1, 10);
    EXPECT_EQ(KnStatusTimedOut, Begin(client, 103, 1)) << "the reply has not been taken";
    EXPECT_EQ(OkWith(10), Finish(client));
    Serve(2, 20); // nothing was sent of those that timed out
    EXPECT_EQ(OkWith(20), call.Get());
}

TEST_P(BegunCallTest, WaitsForTheTurn_WithinItsLimit) {
    const Handle client = Connect();
    Calling call(client, 1);
    const NkDeferredReply deferred = ReceiveAndDefer();
    EXPECT_EQ(KnStatusTimedOut, Begin(client, 100, 0));
    EXPECT_EQ(KnStatusTimedOut, Begin(client, 101, 20));
    Background begin([&] { return Begin(client, 2, NkForever); });
    begin.AwaitBlocked();
    EXPECT_EQ(KnStatusOk, Answer(deferred, 10));
    EXPECT_EQ(OkWith(10), call.Get());
    EXPECT_EQ(KnStatusOk, begin.Get());
    Background next([&] { return Begin(client, 3); });
    next.AwaitBlocked();
    Serve(2, 20);
    EXPECT_EQ(OkWith(20), Finish(client));
    EXPECT_EQ(KnStatusOk, next.Get());
    Serve(3, 30);
    EXPECT_EQ(OkWith(30), Finish(client));
}

TEST_P(BegunCallTest, OfAnotherConnection_DoesNotMatter) {
    const Handle one = Connect();
    const Handle two = Connect();
    ASSERT_EQ(KnStatusOk, Begin(one, 1));
    const NkDeferredReply deferred = ReceiveAndDefer();
    ASSERT_EQ(KnStatusOk, Begin(two, 2, 0));
    Serve(2, 20);
    EXPECT_EQ(OkWith(20), Finish(two));
    EXPECT_EQ(KnStatusOk, Answer(deferred, 10));
    EXPECT_EQ(OkWith(10), Finish(one));
}

TEST_P(BegunCallTest, Abandoned_GoesOnAtTheServer_AndTheNextCallWaits) {
    const Handle client = Connect();
    ASSERT_EQ(KnStatusOk, Begin(client, 1));
    EXPECT_EQ(KnStatusOk, Abandon(client));
    EXPECT_EQ(KnStatusTimedOut, Begin(client, 100, 0));
    const NkDeferredReply deferred = ReceiveAndDefer();
    EXPECT_EQ(KnStatusTimedOut, Begin(client, 101, 20));
    Calling call(client, 2);
    call.AwaitBlocked();
    EXPECT_EQ(KnStatusOk, Answer(deferred, 10)); // dropped
    Serve(2, 20);
    EXPECT_EQ(OkWith(20), call.Get());

    ASSERT_EQ(KnStatusOk, Begin(client, 3));
    EXPECT_EQ(KnStatusOk, Abandon(client));
    Background begin([&] { return Begin(client, 4); });
    begin.AwaitBlocked();
    Serve(3, 30);
    EXPECT_EQ(KnStatusOk, begin.Get());
    Serve(4, 40);
    EXPECT_EQ(OkWith(40), Finish(client));
}

TEST_P(BegunCallTest, AbandonedAfterItsReply_LeavesTheConnectionFree) {
    const Handle client = Connect();
    for (std::int64_t round = 0; round < 3; ++round) {
        ASSERT_EQ(KnStatusOk, Begin(client, round));
        Serve(round, -1);
        EXPECT_EQ(KnStatusOk, Abandon(client));
        ASSERT_EQ(KnStatusOk, Begin(client, 100 + round, 0));
        Serve(100 + round, round);
        EXPECT_EQ(OkWith(round), Finish(client));
    }
}

TEST_P(BegunCallTest, AbandonedByBothSides_LeavesTheConnectionFree) {
    const Handle client = Connect();
    ASSERT_EQ(KnStatusOk, Begin(client, 1));
    EXPECT_EQ(KnStatusOk, Abandon(client));
    Background([&] { ReceiveOne(); }).Get();
    ASSERT_EQ(KnStatusOk, Begin(client, 2));
    Serve(2, 20);
    EXPECT_EQ(OkWith(20), Finish(client));
}

TEST_P(BegunCallTest, TakesTheNextOffer) {
    const Handle client = Connect();
    const NkDeferredReply deferred = CallWithOffers(client, 10, {11, 12, 13});
    ASSERT_EQ(KnStatusOk, Begin(client));
    EXPECT_EQ(OkWith(11), Finish(client, 0));
    EXPECT_EQ(OkWith(12), Calling(client).Get());
    ASSERT_EQ(KnStatusOk, Begin(client));
    EXPECT_EQ(OkWith(13), Finish(client));
    ASSERT_EQ(KnStatusOk, Begin(client));
    EXPECT_EQ(KnStatusTimedOut, Finish(client, 0).status);
    Serve(1, 20);
    EXPECT_EQ(OkWith(20), Finish(client));
    std::size_t taken = 0;
    EXPECT_EQ(KnStatusOk, NkTakeBackOffers(deferred, &taken));
    EXPECT_EQ(3u, taken);
}

TEST_P(BegunCallTest, WithOtherBytes_TakesNoOffer) {
    const Handle client = Connect();
    CallWithOffers(client, 10, {11, 12});
    ASSERT_EQ(KnStatusOk, Begin(client, 2));
    Serve(2, 20);
    EXPECT_EQ(OkWith(20), Finish(client));
    ASSERT_EQ(KnStatusOk, Begin(client, 1)); // no repetition of the last one
    Serve(1, 30);
    EXPECT_EQ(OkWith(30), Finish(client));
}

TEST_P(BegunCallTest, AnOfferThatIsTakenBackBeforeTheFinish_IsSentThen) {
    const Handle client = Connect();
    for (const std::uint32_t timeoutMs : {0u, 1u}) {
        const NkDeferredReply deferred = CallWithOffers(client, 10, {11, 12});
        ASSERT_EQ(KnStatusOk, Begin(client));
        EXPECT_EQ(OkWith(11), Finish(client));
        ASSERT_EQ(KnStatusOk, Begin(client));
        std::size_t taken = 77;
        EXPECT_EQ(KnStatusOk, NkTakeBackOffers(deferred, &taken));
        EXPECT_EQ(1u, taken) << "begun is not taken";
        EXPECT_EQ(KnStatusTimedOut, Finish(client, timeoutMs).status);
        Serve(1, 12);
        EXPECT_EQ(OkWith(12), Finish(client));
    }
}

TEST_P(BegunCallTest, AbandonedBeforeItsOfferIsTaken_EachSideCountsTheSame) {
    const Handle client = Connect();
    const NkDeferredReply deferred = CallWithOffers(client, 10, {11, 12, 13});
    ASSERT_EQ(KnStatusOk, Begin(client));
    EXPECT_EQ(KnStatusOk, Abandon(client));
    ASSERT_EQ(KnStatusOk, Begin(client, 1, 0));
    const Returned next = Finish(client);
    EXPECT_EQ(KnStatusOk, next.status);
    std::size_t taken = 0;
    EXPECT_EQ(KnStatusOk, NkTakeBackOffers(deferred, &taken));
    EXPECT_EQ(next.value, static_cast<std::int64_t>(10 + taken));
}

TEST_P(BegunCallTest, TheEndOfTheServer_EndsIt) {
    const Handle received = Connect();
    const Handle waiting = Connect();
    const Handle blocked = Connect();
    const Handle abandoned = Connect();
    ASSERT_EQ(KnStatusOk, Begin(received));
    ReceiveAndDefer();
    for (const Handle* client : {&waiting, &blocked, &abandoned}) {
        ASSERT_EQ(KnStatusOk, Begin(*client));
    }
    EXPECT_EQ(KnStatusOk, Abandon(abandoned));
    Background finish([&] { return Finish(blocked, NkForever); });
    Background begin([&] { return Begin(received, 2, NkForever); });
    finish.AwaitBlocked();
    begin.AwaitBlocked();
    CloseChannel();
    EXPECT_EQ(KnStatusClosed, finish.Get().status);
    EXPECT_EQ(KnStatusClosed, Finish(received, NkForever).status);
    EXPECT_EQ(KnStatusClosed, begin.Get());
    Await("the end of the server", [&] { return Finish(waiting, 0).status == KnStatusClosed; });
    EXPECT_EQ(KnStatusClosed, Begin(abandoned, 2, NkForever));
    for (const Handle* client : {&received, &waiting, &blocked, &abandoned}) {
        EXPECT_EQ(KnStatusClosed, Begin(*client, 2, NkForever));
        EXPECT_EQ(KnStatusClosed, CallWith(client->Get(), 2));
    }
}

TEST_P(BegunCallTest, AfterTheEndOfTheServer_NoneIsAnswered) {
    const Handle client = Connect();
    CallWithOffers(client, 10, {11, 12});
    ASSERT_EQ(KnStatusOk, Begin(client)); // of an offer
    CloseChannel();
    EXPECT_EQ(KnStatusClosed, Finish(client, NkForever).status);
    EXPECT_EQ(KnStatusClosed, Begin(client, 1, NkForever));
}

TEST_P(BegunCallTest, TheEndOfTheClientEnd_EndsIt) {
    Handle client = Connect();
    const KnHandle handle = client.Get();
    ASSERT_EQ(KnStatusOk, Begin(client));
    Background finish([&] { return Finish(handle, NkForever); });
    Background begin([&] { return Begin(handle, RequestOf(2), NkForever); });
    finish.AwaitBlocked();
    begin.AwaitBlocked();
    EXPECT_EQ(KnStatusOk, client.Close());
    EXPECT_EQ(KnStatusClosed, finish.Get().status);
    EXPECT_EQ(KnStatusClosed, begin.Get());
    int descriptor = -7;
    EXPECT_EQ(KnStatusClosed, Begin(handle, RequestOf(2), NkForever));
    EXPECT_EQ(KnStatusClosed, NkCallDescriptor(handle, &descriptor));
    EXPECT_EQ(-7, descriptor);

    const Handle other = Connect(); // the server has lost that connection only
    Calling call(other, 5);
    Record request = ReceiveOne();
    if (request.Value() != 5) { // it was sent before the end
        static_cast<void>(Reply(Channel(), request));
        request = ReceiveOne();
    }
    EXPECT_EQ(KnStatusOk, Echo(Channel(), request));
    EXPECT_EQ(OkWith(6), call.Get());
}

TEST_P(BegunCallTest, EndedCalls_AnswerClosed_AndKeepTheHandleAndItsDescriptor) {
    const Handle client = Connect();
    const KnHandle handle = client.Get();
    const int descriptor = DescriptorOf(client);
    const UsersEpoll users(descriptor);
    ASSERT_EQ(KnStatusOk, Begin(client));
    FindNothing(client, descriptor);
    Background finish([&] { return Finish(handle, NkForever); });
    finish.AwaitBlocked();
    EXPECT_EQ(KnStatusOk, NkEndCalls(handle));
    EXPECT_EQ(KnStatusOk, NkEndCalls(handle));
    EXPECT_EQ(KnStatusClosed, finish.Get().status);
    EXPECT_EQ(KnStatusClosed, Begin(handle, RequestOf(2), NkForever));
    EXPECT_EQ(KnStatusClosed, CallWith(handle, 2));
    static_cast<void>(Finish(Connect(), 0)); // this thread uses another handle
    EXPECT_TRUE(users.Wait());
    EXPECT_EQ(descriptor, DescriptorOf(client));
    EXPECT_EQ(KnStatusOk, NkWakeCallDescriptor(handle, HourMs)) << "as if it had lost its server";
    EXPECT_FALSE(IsReadable(descriptor));
}

TEST_P(BegunCallTest, OnlyAClientEnd_HasItsCallsEnded) {
    Handle client = Connect();
    const KnHandle handle = client.Get();
    EXPECT_EQ(KnStatusInvalidArgument, NkEndCalls(Channel()));
    EXPECT_EQ(KnStatusInvalidArgument, NkEndCalls(KnInvalidHandle));
    client.Close();
    EXPECT_EQ(KnStatusClosed, NkEndCalls(handle));
}

TEST_P(BegunCallTest, ADescriptorThatIsAskedForAfterTheEndOfTheServer_IsReadable) {
    const Handle client = Connect();
    ASSERT_EQ(KnStatusOk, Begin(client));
    CloseChannel();
    EXPECT_EQ(KnStatusClosed, Finish(client, NkForever).status);
    const int descriptor = DescriptorOf(client);
    EXPECT_TRUE(IsReadable(descriptor));
    EXPECT_EQ(KnStatusOk, NkWakeCallDescriptor(client.Get(), HourMs));
    EXPECT_FALSE(IsReadable(descriptor));
}

TEST_P(BegunCallTest, AfterTheEndOfTheClientEnd_EachAnswersClosed) {
    Handle finished = Connect();
    Handle abandoned = Connect();
    const KnHandle first = finished.Get();
    NkBosTransport second = TransportOf(abandoned.Get());
    for (Handle* client : {&finished, &abandoned}) {
        ASSERT_EQ(KnStatusOk, Begin(*client));
        EXPECT_EQ(KnStatusOk, client->Close());
    }
    EXPECT_EQ(KnStatusClosed, Finish(first, NkForever).status);
    EXPECT_EQ(KnStatusClosed, NkAbandonCall(&second));
    const auto isOver = testing::AnyOf(KnStatusClosed, KnStatusInvalidArgument);
    EXPECT_THAT(Finish(first, NkForever).status, isOver);
    EXPECT_THAT(NkAbandonCall(&second), isOver);
}

// The server lets a limit pass now and then; some values are offered, and some of the offers are taken back.
TEST_P(BegunCallTest, TenThousandFinishesWithALimit_LoseNothing) {
    constexpr int finishes = 10'000;
    const Handle client = Connect();
    std::atomic<int> timeOuts{0};
    Background serving([&] {
        std::mt19937 random(2024); // NOLINT: the same each time
        Counting numbers;
        Record request;
        while (Receive(Channel(), request) == KnStatusOk && request.Value() == 1) {
            NkDeferredReply deferred;
            EXPECT_EQ(KnStatusOk, NkDeferReply(&deferred));
            EXPECT_EQ(KnStatusOk, Reply(Channel(), request));
            if (random() % 8 == 0) {
                const int before = timeOuts;
                Await("a limit to pass", [&] { return timeOuts != before; });
            }
            numbers.Answer(deferred, random() % 4);
            if (random() % 2 == 0) {
                static_cast<void>(numbers.TakeBack());
            }
        }
        static_cast<void>(numbers.TakeBack());
        EXPECT_EQ(KnStatusOk, Reply(Channel(), RequestOf(-1)));
        return numbers.Next();
    });
    std::int64_t next = 0;
    bool isUnderWay = false;
    for (int finish = 0; finish < finishes || isUnderWay; ++finish) {
        if (!isUnderWay) {
            ASSERT_EQ(KnStatusOk, Begin(client, 1, 0));
        }
        const Returned returned = Finish(client, 1);
        isUnderWay = returned.status == KnStatusTimedOut;
        if (isUnderWay) {
            ++timeOuts;
        } else {
            ASSERT_EQ(OkWith(next), returned);
            ++next;
        }
    }
    EXPECT_LT(0, timeOuts);
    EXPECT_EQ(OkWith(-1), CallFor(client.Get(), 2));
    EXPECT_EQ(next, serving.Get());
}

TEST_P(BegunCallTest, ItsDescriptor_IsReadableWhileThereIsAReply) {
    const Handle client = Connect();
    const int descriptor = DescriptorOf(client);
    EXPECT_EQ(descriptor, DescriptorOf(client));
    for (std::int64_t round = 0; round < 5; ++round) {
        ASSERT_EQ(KnStatusOk, Begin(client, round));
        FindNothing(client, descriptor);
        const NkDeferredReply deferred = ReceiveAndDefer();
        EXPECT_FALSE(IsReadable(descriptor));
        Background polling([&] { return BecomesReadable(descriptor); });
        polling.AwaitBlocked();
        EXPECT_EQ(KnStatusOk, Answer(deferred, round));
        EXPECT_TRUE(polling.Get());
        EXPECT_TRUE(IsReadable(descriptor)) << "it is level-triggered";
        EXPECT_EQ(OkWith(round), Finish(client, 0));
        EXPECT_TRUE(IsReadable(descriptor)) << "no finish has found nothing";
        EXPECT_TRUE(IsReadable(descriptor));
    }
}

TEST_P(BegunCallTest, ItsDescriptor_KnowsWhatWasThereBefore) {
    const Handle client = Connect();
    ASSERT_EQ(KnStatusOk, Begin(client, 1));
    Serve(1, 10);
    int descriptor = DescriptorOf(client);
    EXPECT_TRUE(BecomesReadable(descriptor));
    EXPECT_EQ(OkWith(10), Finish(client, 0));

    const Handle other = Connect();
    ASSERT_EQ(KnStatusOk, Begin(other, 2));
    EXPECT_EQ(KnStatusTimedOut, Finish(other, 1).status);
    descriptor = DescriptorOf(other);
    FindNothing(other, descriptor);
    Serve(2, 20);
    EXPECT_TRUE(BecomesReadable(descriptor));
    EXPECT_EQ(OkWith(20), Finish(other, 0));

    const Handle last = Connect(); // one that has called before
    Calling call(last, 3);
    Serve(3, 30);
    EXPECT_EQ(OkWith(30), call.Get());
    descriptor = DescriptorOf(last);
    ASSERT_EQ(KnStatusOk, Begin(last, 4));
    FindNothing(last, descriptor);
    Serve(4, 40);
    EXPECT_TRUE(BecomesReadable(descriptor));
    EXPECT_EQ(OkWith(40), Finish(last, 0));
}

TEST_P(BegunCallTest, ItsDescriptor_WorksBesideEveryOtherStep) {
    const Handle client = Connect();
    const int descriptor = DescriptorOf(client);
    std::int64_t value = 0;
    const auto beginsAndPolls = [&] {
        SCOPED_TRACE(++value);
        ASSERT_EQ(KnStatusOk, Begin(client, value));
        FindNothing(client, descriptor);
        Serve(value, value + 100);
        ASSERT_TRUE(BecomesReadable(descriptor));
        ASSERT_EQ(OkWith(value + 100), Finish(client, 0));
    };
    beginsAndPolls();
    Calling call(client, 1000); // one that calls
    Serve(1000, 1);
    EXPECT_EQ(OkWith(1), call.Get());
    beginsAndPolls();
    ASSERT_EQ(KnStatusOk, Begin(client, 1001)); // one that waits
    Background finish([handle = client.Get()] { return Finish(handle, NkForever); });
    finish.AwaitBlocked();
    Serve(1001, 2);
    EXPECT_EQ(OkWith(2), finish.Get());
    beginsAndPolls();
    ASSERT_EQ(KnStatusOk, Begin(client, 1002)); // one that waits in vain
    EXPECT_EQ(KnStatusTimedOut, Finish(client, 20).status);
    EXPECT_FALSE(IsReadable(descriptor));
    Serve(1002, 3);
    EXPECT_TRUE(BecomesReadable(descriptor));
    EXPECT_EQ(OkWith(3), Finish(client, 20));
    beginsAndPolls();
    ASSERT_EQ(KnStatusOk, Begin(client, 1003)); // abandoned before its reply
    FindNothing(client, descriptor);
    EXPECT_EQ(KnStatusOk, Abandon(client));
    Serve(1003, 4);
    beginsAndPolls();
    ASSERT_EQ(KnStatusOk, Begin(client, 1004)); // abandoned after it
    Serve(1004, 5);
    EXPECT_TRUE(BecomesReadable(descriptor));
    EXPECT_EQ(KnStatusOk, Abandon(client));
    beginsAndPolls();
}

TEST_P(BegunCallTest, ItsDescriptor_IsReadableWhileThereIsAnOffer) {
    const Handle client = Connect();
    const int descriptor = DescriptorOf(client);
    ASSERT_EQ(KnStatusOk, Begin(client));
    FindNothing(client, descriptor);
    const NkDeferredReply deferred = ReceiveAndDefer();
    EXPECT_EQ(KnStatusOk, Answer(deferred, 10, {11, 12, 13}));
    EXPECT_TRUE(BecomesReadable(descriptor));
    EXPECT_EQ(OkWith(10), Finish(client, 0));
    for (const std::int64_t value : {11, 12}) {
        ASSERT_EQ(KnStatusOk, Begin(client, 1, 0));
        EXPECT_TRUE(IsReadable(descriptor));
        EXPECT_EQ(OkWith(value), Finish(client, 0));
    }
    ASSERT_EQ(KnStatusOk, Begin(client));
    std::size_t taken = 0;
    EXPECT_EQ(KnStatusOk, NkTakeBackOffers(deferred, &taken));
    EXPECT_EQ(2u, taken);
    EXPECT_TRUE(IsReadable(descriptor)) << "so that a finish sends the request";
    FindNothing(client, descriptor);
    Serve(1, 13);
    EXPECT_TRUE(BecomesReadable(descriptor));
    EXPECT_EQ(OkWith(13), Finish(client, 0));
}

TEST_P(BegunCallTest, OffersThatCameWithACall_MakeTheDescriptorReadable) {
    const Handle client = Connect();
    Calling call(client);
    const NkDeferredReply deferred = ReceiveAndDefer();
    EXPECT_EQ(KnStatusOk, Answer(deferred, 10, {11, 12}));
    EXPECT_EQ(OkWith(10), call.Get());
    ASSERT_EQ(KnStatusOk, Begin(client));
    const int descriptor = DescriptorOf(client);
    EXPECT_TRUE(IsReadable(descriptor));
    EXPECT_EQ(OkWith(11), Finish(client, 0));
    ASSERT_EQ(KnStatusOk, Begin(client));
    EXPECT_TRUE(IsReadable(descriptor));
    EXPECT_EQ(OkWith(12), Finish(client, 0));
}

TEST_P(BegunCallTest, ItsDescriptor_IsReadableAtTheEndOfTheServer) {
    const Handle received = Connect();
    const Handle waiting = Connect();
    const int one = DescriptorOf(received);
    const int two = DescriptorOf(waiting);
    ASSERT_EQ(KnStatusOk, Begin(received));
    ReceiveAndDefer();
    ASSERT_EQ(KnStatusOk, Begin(waiting));
    FindNothing(received, one);
    FindNothing(waiting, two);
    Background polling([&] { return BecomesReadable(one); });
    polling.AwaitBlocked();
    CloseChannel();
    EXPECT_TRUE(polling.Get());
    EXPECT_TRUE(BecomesReadable(two));
    EXPECT_EQ(KnStatusClosed, Finish(received, 0).status);
    EXPECT_EQ(KnStatusClosed, Finish(waiting, 0).status);
}

// A program that sleeps in its own epoll alone, and looks once each time that it wakes.
TEST_P(BegunCallTest, AUsersEpoll_MissesNothing) {
    constexpr std::int64_t values = 5000;
    const Handle client = Connect();
    const UsersEpoll epoll(DescriptorOf(client));
    Background serving([&] {
        std::mt19937 random(7); // NOLINT: the same each time
        Counting numbers;
        Record request;
        while (Receive(Channel(), request) == KnStatusOk && request.Value() == 1) {
            NkDeferredReply deferred;
            EXPECT_EQ(KnStatusOk, NkDeferReply(&deferred));
            EXPECT_EQ(KnStatusOk, Reply(Channel(), request));
            for (auto spins = random() % 2000; spins > 0; --spins) {
                std::atomic_signal_fence(std::memory_order_seq_cst);
            }
            numbers.Answer(deferred, random() % 4);
            if (random() % 2 == 0) {
                static_cast<void>(numbers.TakeBack());
            }
        }
        EXPECT_EQ(KnStatusOk, Reply(Channel(), RequestOf(-1)));
    });
    ASSERT_EQ(KnStatusOk, Begin(client, 1, 0));
    for (std::int64_t next = 0; next < values;) {
        ASSERT_TRUE(epoll.Wait()) << "value " << next;
        const Returned returned = Finish(client, 0);
        if (returned.status != KnStatusTimedOut) {
            ASSERT_EQ(OkWith(next), returned);
            ++next;
            ASSERT_EQ(KnStatusOk, Begin(client, 1, 0));
        }
    }
    EXPECT_EQ(KnStatusOk, Abandon(client));
    EXPECT_EQ(OkWith(-1), CallFor(client.Get(), 2));
}

TEST_P(BegunCallTest, ItsDescriptor_ClosesWithTheConnection) {
    const auto connectOnce = [&] {
        const Handle client = Connect();
        const int descriptor = DescriptorOf(client);
        EXPECT_EQ(KnStatusOk, Begin(client));
        EXPECT_NE(-1, ::fcntl(descriptor, F_GETFD));
        Serve(1, 2);
        EXPECT_EQ(OkWith(2), Finish(client));
    };
    const Handle stays = Connect();
    connectOnce(); // whatever is opened once
    const std::size_t before = OpenDescriptors();
    for (int round = 0; round < 20; ++round) {
        connectOnce();
    }
    Await("the descriptors to close", [&] {
        static_cast<void>(Finish(stays, 0)); // this thread uses another handle
        return OpenDescriptors() <= before;
    });
}

class LostServerTest : public BegunCallTest {
protected:
    /// A client that polls, and has lost its server.
    void SetUp() override {
        BegunCallTest::SetUp();
        former = Connect();
        descriptor = DescriptorOf(former);
        users = std::make_unique<UsersEpoll>(descriptor);
        ASSERT_EQ(KnStatusOk, Begin(former));
        FindNothing(former, descriptor);
        CloseChannel();
        ASSERT_TRUE(users->Wait());
        ASSERT_EQ(KnStatusClosed, Finish(former, 0).status);
    }
    void TearDown() override {
        users.reset();
        former.Close();
        BegunCallTest::TearDown();
    }

    Handle former{KnInvalidHandle};
    int descriptor = -1;
    std::unique_ptr<UsersEpoll> users;
};

INSTANTIATE_TEST_SUITE_P(, LostServerTest, testing::Values(ChannelKind::Static, ChannelKind::Dynamic), NameOf);

TEST_P(LostServerTest, ItsDescriptor_MovesToAnotherConnection) {
    std::vector<Handle> servers;
    for (const char* name : {"second", "third"}) {
        servers.push_back(RegisterStatic(name));
        Handle client = ConnectStatic(name);
        ASSERT_EQ(KnStatusOk, NkMoveCallDescriptor(client.Get(), former.Get()));
        EXPECT_EQ(descriptor, DescriptorOf(client));
        EXPECT_EQ(KnStatusInvalidArgument, NkMoveCallDescriptor(client.Get(), former.Get())) << "it has none any more";
        EXPECT_EQ(KnStatusInvalidArgument, NkWakeCallDescriptor(former.Get(), 0));
        former.Close();
        EXPECT_TRUE(users->Wait(0)) << "readable, and polled as before";
        for (std::int64_t round = 0; round < 3; ++round) {
            ASSERT_EQ(KnStatusOk, Begin(client, round));
            FindNothing(client, descriptor);
            EXPECT_FALSE(users->Wait(0));
            Record request;
            ASSERT_EQ(KnStatusOk, Receive(servers.back().Get(), request));
            EXPECT_EQ(KnStatusOk, Echo(servers.back().Get(), request));
            EXPECT_TRUE(users->Wait());
            EXPECT_EQ(OkWith(round + 1), Finish(client, 0));
        }
        ASSERT_EQ(KnStatusOk, Begin(client));
        FindNothing(client, descriptor);
        servers.back().Close();
        EXPECT_TRUE(users->Wait());
        EXPECT_EQ(KnStatusClosed, Finish(client, 0).status);
        former = std::move(client);
    }
}

TEST_P(LostServerTest, ADescriptor_MovesOnlyWhereNoneIs) {
    const Handle server = RegisterStatic("second");
    const Handle client = ConnectStatic("second");
    const Handle without = ConnectStatic("second");
    EXPECT_EQ(KnStatusInvalidArgument, NkMoveCallDescriptor(client.Get(), without.Get()));
    EXPECT_EQ(KnStatusInvalidArgument, NkMoveCallDescriptor(former.Get(), former.Get()));
    EXPECT_EQ(KnStatusInvalidArgument, NkMoveCallDescriptor(KnInvalidHandle, former.Get()));
    EXPECT_EQ(KnStatusInvalidArgument, NkMoveCallDescriptor(client.Get(), KnInvalidHandle));
    EXPECT_EQ(KnStatusInvalidArgument, NkMoveCallDescriptor(server.Get(), former.Get()));
    EXPECT_EQ(KnStatusInvalidArgument, NkMoveCallDescriptor(client.Get(), server.Get()));
    const int own = DescriptorOf(client);
    EXPECT_EQ(KnStatusInvalidArgument, NkMoveCallDescriptor(client.Get(), former.Get()));
    EXPECT_EQ(own, DescriptorOf(client));
    EXPECT_EQ(KnStatusOk, NkMoveCallDescriptor(without.Get(), former.Get())) << "and that one is as it was";
    EXPECT_EQ(descriptor, DescriptorOf(without));
}

TEST_P(LostServerTest, ItsDescriptor_WakesThen_AndNotBefore) {
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(KnStatusOk, NkWakeCallDescriptor(former.Get(), HourMs));
        EXPECT_FALSE(users->Wait(0));
        EXPECT_FALSE(IsReadable(descriptor, 20));
        ASSERT_EQ(KnStatusOk, NkWakeCallDescriptor(former.Get(), round == 1 ? 0 : 20));
        EXPECT_TRUE(users->Wait());
    }
    const Handle server = RegisterStatic("second");
    const Handle client = ConnectStatic("second");
    ASSERT_EQ(KnStatusOk, NkWakeCallDescriptor(former.Get(), HourMs));
    ASSERT_EQ(KnStatusOk, NkMoveCallDescriptor(client.Get(), former.Get()));
    EXPECT_TRUE(users->Wait(0));
    ASSERT_EQ(KnStatusOk, Begin(client));
    FindNothing(client, descriptor);
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
    EXPECT_EQ(KnStatusOk, Echo(server.Get(), request));
    EXPECT_TRUE(users->Wait());
    EXPECT_EQ(OkWith(2), Finish(client, 0));
}

TEST_P(LostServerTest, AWakeThatIsStillToCome_DoesNotMoveAlong) {
    const Handle server = RegisterStatic("second");
    const Handle client = ConnectStatic("second");
    ASSERT_EQ(KnStatusOk, NkWakeCallDescriptor(former.Get(), 20));
    ASSERT_EQ(KnStatusOk, NkMoveCallDescriptor(client.Get(), former.Get()));
    ASSERT_EQ(KnStatusOk, Begin(client));
    FindNothing(client, descriptor);
    EXPECT_FALSE(users->Wait(200));
}

TEST_P(BegunCallTest, OnlyALostServersDescriptor_IsWoken) {
    const Handle client = Connect();
    EXPECT_EQ(KnStatusInvalidArgument, NkWakeCallDescriptor(client.Get(), 0)) << "it has none";
    DescriptorOf(client);
    EXPECT_EQ(KnStatusInvalidArgument, NkWakeCallDescriptor(client.Get(), 0));
    EXPECT_EQ(KnStatusInvalidArgument, NkWakeCallDescriptor(Channel(), 0));
    EXPECT_EQ(KnStatusInvalidArgument, NkWakeCallDescriptor(KnInvalidHandle, 0));
}

TEST_P(BegunCallTest, AChildMadeByFork_HasNone_AndLeavesItsParentsAlone) {
    const Handle client = Connect();
    const Handle other = Connect();
    const int descriptor = DescriptorOf(client);
    ASSERT_EQ(KnStatusOk, Begin(client, 1));
    FindNothing(client, descriptor);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        NkBosTransport begun{client.Get(), 1, nullptr, 0};
        NkBosTransport free{other.Get(), 1, nullptr, 0};
        Record record = RequestOf(99);
        int number = 0;
        const bool isRight = NkFinishCall(&begun, &record.header, 0) == KnStatusClosed &&
                             NkAbandonCall(&begun) == KnStatusClosed &&
                             NkBeginCall(&begun, &record.header, 0) == KnStatusClosed &&
                             NkBeginCall(&free, &record.header, 0) == KnStatusClosed &&
                             NkCallDescriptor(other.Get(), &number) == KnStatusClosed &&
                             NkMoveCallDescriptor(other.Get(), client.Get()) == KnStatusInvalidArgument;
        KnHandleClose(client.Get());
        ::_exit(isRight ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_FALSE(IsReadable(descriptor));
    Serve(1, 10);
    EXPECT_TRUE(BecomesReadable(descriptor));
    EXPECT_EQ(OkWith(10), Finish(client, 0));
    ASSERT_EQ(KnStatusOk, Begin(other, 2));
    Serve(2, 20);
    EXPECT_EQ(OkWith(20), Finish(other));
}

} // namespace
} // namespace platform_test
