// Defends nk/deferred_reply.h without offers: a deferred request is answered once, by any thread, and by nothing else,
// whatever the thread that deferred it does next and whichever side ends.
#include "deferring.h"

#include <deque>
#include <mutex>
#include <set>

namespace platform_test {
namespace {

INSTANTIATE_TEST_SUITE_P(, DeferredReplyTest, testing::Values(ChannelKind::Static, ChannelKind::Dynamic), NameOf);

// A deferred request is answered once, by any thread.

TEST_P(DeferredReplyTest, TheThreadsOwnReply_AnswersOk_AndSendsNothing) {
    const Handle client = Connect();
    Calling call(client);
    Record request;
    NkDeferredReply deferred;
    ASSERT_EQ(KnStatusOk, Receive(Channel(), request));
    ASSERT_EQ(KnStatusOk, NkDeferReply(&deferred));
    EXPECT_EQ(KnStatusOk, Reply(Channel(), RequestOf(7)));
    EXPECT_EQ(KnStatusInvalidArgument, Reply(Channel(), RequestOf(8))) << "a request gets one reply";
    EXPECT_EQ(KnStatusOk, Answer(deferred, 42));
    EXPECT_EQ(OkWith(42), call.Get());
}

TEST_P(DeferredReplyTest, TheThreadsOwnReply_IsNotTakenForThatToTheNextRequest) {
    const Handle client = Connect();
    Calling call(client, 1);
    Record request;
    NkDeferredReply deferred;
    ASSERT_EQ(KnStatusOk, Receive(Channel(), request));
    ASSERT_EQ(KnStatusOk, NkDeferReply(&deferred));
    ASSERT_EQ(KnStatusOk, Answer(deferred, 42));
    EXPECT_EQ(OkWith(42), call.Get());

    Calling next(client, 2);
    std::promise<void> mayReply;
    std::promise<void> hasReceived;
    Background other([&] {
        Record received;
        EXPECT_EQ(KnStatusOk, Receive(Channel(), received));
        hasReceived.set_value();
        mayReply.get_future().wait();
        return Echo(Channel(), received);
    });
    hasReceived.get_future().wait();
    EXPECT_EQ(KnStatusOk, Reply(Channel(), RequestOf(7)));
    mayReply.set_value();
    EXPECT_EQ(KnStatusOk, other.Get());
    EXPECT_EQ(OkWith(3), next.Get());
}

TEST_P(DeferredReplyTest, TheThread_ServesOthersMeanwhile) {
    const Handle client = Connect();
    const Handle other = Connect();
    Calling call(client, 1);
    const NkDeferredReply deferred = ReceiveAndDefer();
    for (std::int64_t value = 10; value < 20; ++value) {
        Calling otherCall(other, value);
        Record request;
        ASSERT_EQ(KnStatusOk, Receive(Channel(), request));
        EXPECT_EQ(value, request.Value());
        EXPECT_EQ(KnStatusOk, Echo(Channel(), request));
        EXPECT_EQ(OkWith(value + 1), otherCall.Get());
    }
    EXPECT_EQ(KnStatusOk, Answer(deferred, 42));
    EXPECT_EQ(OkWith(42), call.Get());
}

TEST_P(DeferredReplyTest, TheClient_StaysBlocked_AndNoRequestOfItIsReceived) {
    const Handle client = Connect();
    const Handle other = Connect();
    Calling call(client, 1);
    const NkDeferredReply deferred = ReceiveAndDefer();
    Calling second(client, 2);
    second.AwaitBlocked();
    Calling otherCall(other, 3);
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(Channel(), request));
    EXPECT_EQ(3, request.Value());
    EXPECT_EQ(KnStatusOk, Echo(Channel(), request));
    EXPECT_EQ(KnStatusOk, otherCall.Status());

    EXPECT_EQ(KnStatusOk, Answer(deferred, 42));
    EXPECT_EQ(OkWith(42), call.Get());
    ASSERT_EQ(KnStatusOk, Receive(Channel(), request));
    EXPECT_EQ(2, request.Value());
    EXPECT_EQ(KnStatusOk, Echo(Channel(), request));
    EXPECT_EQ(OkWith(3), second.Get());
}

TEST_P(DeferredReplyTest, AnyThread_Answers) {
    const Handle client = Connect();
    Calling call(client);
    const NkDeferredReply deferred = ReceiveAndDefer();
    Background other([&] { return Answer(deferred, 42); });
    EXPECT_EQ(KnStatusOk, other.Get());
    EXPECT_EQ(OkWith(42), call.Get());
}

TEST_P(DeferredReplyTest, ARequest_IsAnsweredOnce) {
    const Handle client = Connect();
    Calling call(client);
    const NkDeferredReply deferred = ReceiveAndDefer();
    EXPECT_EQ(KnStatusOk, Answer(deferred, 42));
    EXPECT_EQ(KnStatusInvalidArgument, Answer(deferred, 43));
    EXPECT_EQ(OkWith(42), call.Get());
    EXPECT_EQ(KnStatusInvalidArgument, Answer(deferred, 44));

    Calling next(client);
    const NkDeferredReply nextDeferred = ReceiveAndDefer();
    EXPECT_EQ(KnStatusInvalidArgument, Answer(deferred, 45)) << "the next request is another one";
    EXPECT_EQ(KnStatusOk, Answer(nextDeferred, 46));
    EXPECT_EQ(OkWith(46), next.Get());
}

TEST_P(DeferredReplyTest, OfTwoThreadsThatAnswer_OneWins) {
    const Handle client = Connect();
    NkDeferredReply deferred;
    Rivals<std::int32_t> rivals([&](int rival) { return Answer(deferred, rival); });
    for (int round = 0; round < 1000; ++round) {
        Calling call(client);
        deferred = ReceiveAndDefer();
        const auto statuses = rivals.Race();
        EXPECT_THAT(statuses, testing::UnorderedElementsAre(KnStatusOk, KnStatusInvalidArgument));
        EXPECT_EQ(OkWith(statuses[0] == KnStatusOk ? 0 : 1), call.Get());
    }
}

TEST_P(DeferredReplyTest, ARequestThatWasNotDeferred_CannotBeAnsweredSo) {
    const Handle client = Connect();
    Calling call(client);
    const NkDeferredReply deferred = ReceiveAndDefer();
    NkDeferredReply unknown = deferred;
    unknown.call += 1;
    EXPECT_EQ(KnStatusInvalidArgument, Answer(unknown, 1));
    unknown = deferred;
    unknown.client += 1000;
    EXPECT_EQ(KnStatusInvalidArgument, Answer(unknown, 1));
    unknown = deferred;
    unknown.channel = client.Get();
    EXPECT_EQ(KnStatusInvalidArgument, Answer(unknown, 1)) << "no server end";
    EXPECT_EQ(KnStatusInvalidArgument, Answer({}, 1));
    EXPECT_EQ(KnStatusInvalidArgument, NkReplyDeferred(deferred, nullptr));
    EXPECT_EQ(KnStatusOk, Answer(deferred, 42));
    EXPECT_EQ(OkWith(42), call.Get());

    Calling next(client);
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(Channel(), request));
    unknown = deferred;
    unknown.call += 1;
    EXPECT_EQ(KnStatusInvalidArgument, Answer(unknown, 1)) << "the thread that received it owes the reply";
    EXPECT_EQ(KnStatusOk, Echo(Channel(), request));
    EXPECT_EQ(OkWith(2), next.Get());
}

TEST_P(DeferredReplyTest, Requests_AreDistinct) {
    const Handle client = Connect();
    const Handle other = Connect();
    Calling call(client);
    const NkDeferredReply first = ReceiveAndDefer();
    Calling otherCall(other);
    const NkDeferredReply foreign = ReceiveAndDefer();
    EXPECT_EQ(Channel(), first.channel);
    EXPECT_NE(first.client, foreign.client);
    EXPECT_NE(first, foreign);
    EXPECT_EQ(KnStatusOk, Answer(first, 1));
    EXPECT_EQ(KnStatusOk, Answer(foreign, 2));
    EXPECT_EQ(OkWith(1), call.Get());
    EXPECT_EQ(OkWith(2), otherCall.Get());

    Calling next(client);
    const NkDeferredReply second = ReceiveAndDefer();
    EXPECT_EQ(first.client, second.client);
    EXPECT_NE(first, second);
    EXPECT_EQ(KnStatusOk, Answer(second, 3));
    EXPECT_EQ(OkWith(3), next.Get());
}

TEST_P(DeferredReplyTest, TheNumberOfAClient_IsNeverUsedTwice) {
    std::set<std::uint64_t> numbers;
    for (int round = 0; round < 20; ++round) {
        const Handle client = Connect();
        Calling call(client);
        const NkDeferredReply deferred = ReceiveAndDefer();
        EXPECT_TRUE(numbers.insert(deferred.client).second);
        EXPECT_EQ(KnStatusOk, Answer(deferred, 1));
        EXPECT_EQ(KnStatusOk, call.Status());
    }
}

TEST_P(DeferredReplyTest, TheReply_CarriesItsSizeWord_AndZerosBehind) {
    const Handle client = Connect();
    const std::uint32_t errorReply = NkErrorFlag | 32;
    for (const std::uint32_t size : {errorReply, 24U, 32U, 1000U, 1056U, 0x7F800000 | 32U}) {
        Background call([&] {
            Record response;
            std::memset(static_cast<void*>(&response), 0xFF, sizeof response);
            EXPECT_EQ(KnStatusOk, Call(client.Get(), RequestOf(1), response));
            return response;
        });
        const NkDeferredReply deferred = ReceiveAndDefer();
        Record reply;
        std::memset(static_cast<void*>(&reply), 0xAB, sizeof reply);
        reply.header.size = size;
        EXPECT_EQ(KnStatusOk, NkReplyDeferred(deferred, &reply.header));
        std::memset(reinterpret_cast<char*>(&reply) + (size & NkSizeMask), 0, sizeof reply - (size & NkSizeMask));
        const Record response = call.Get();
        EXPECT_EQ(0, std::memcmp(&reply, &response, sizeof reply)) << size;
    }
}

TEST_P(DeferredReplyTest, ManyRequestsAndManyThreads_MixNothingUp) {
    constexpr int clients = 6;
    constexpr int calls = 200;
    struct Waiting {
        NkDeferredReply deferred;
        std::int64_t value;
    };
    std::mutex mutex;
    std::deque<Waiting> queue;
    std::atomic<int> answered{0};
    std::vector<Handle> handles;
    for (int i = 0; i < clients; ++i) {
        handles.push_back(Connect());
    }
    {
        std::vector<std::unique_ptr<Background<void>>> threads;
        for (int i = 0; i < 2; ++i) {
            threads.push_back(std::make_unique<Background<void>>([&] {
                Record request;
                while (Receive(Channel(), request) == KnStatusOk) {
                    if (request.Value() % 3 == 0) {
                        EXPECT_EQ(KnStatusOk, Echo(Channel(), request));
                        ++answered;
                        continue;
                    }
                    Waiting waiting{{}, request.Value()};
                    EXPECT_EQ(KnStatusOk, NkDeferReply(&waiting.deferred));
                    {
                        const std::lock_guard lock(mutex);
                        queue.push_back(waiting);
                    }
                    EXPECT_EQ(KnStatusOk, Reply(Channel(), request));
                }
            }));
            threads.push_back(std::make_unique<Background<void>>([&] {
                while (answered < clients * calls) {
                    std::optional<Waiting> next;
                    {
                        const std::lock_guard lock(mutex);
                        if (!queue.empty()) {
                            next = queue.front();
                            queue.pop_front();
                        }
                    }
                    if (next) {
                        EXPECT_EQ(KnStatusOk, Answer(next->deferred, next->value + 1));
                        ++answered;
                    } else {
                        std::this_thread::yield();
                    }
                }
            }));
        }
        std::vector<std::unique_ptr<Background<int>>> callers;
        for (int i = 0; i < clients; ++i) {
            callers.push_back(std::make_unique<Background<int>>([&, i] {
                int wrong = 0;
                for (std::int64_t value = i * calls; value < (i + 1) * calls; ++value) {
                    wrong += CallFor(handles[static_cast<std::size_t>(i)].Get(), value) != OkWith(value + 1);
                }
                return wrong;
            }));
        }
        for (const auto& caller : callers) {
            EXPECT_EQ(0, caller->Get());
        }
        KnHandleStopReceiving();
    }
    EXPECT_EQ(clients * calls, answered);
}

// What the thread does next abandons nothing.

TEST_P(DeferredReplyTest, AThreadThatReceivesAgain_AbandonsNothing) {
    const Handle client = Connect();
    const Handle other = Connect();
    Calling call(client, 1);
    Record request;
    NkDeferredReply deferred;
    ASSERT_EQ(KnStatusOk, Receive(Channel(), request));
    ASSERT_EQ(KnStatusOk, NkDeferReply(&deferred));
    Calling otherCall(other, 2);
    ASSERT_EQ(KnStatusOk, Receive(Channel(), request)); // without a reply of its own
    EXPECT_EQ(2, request.Value());
    EXPECT_EQ(KnStatusOk, Echo(Channel(), request));
    EXPECT_EQ(KnStatusOk, otherCall.Status());
    EXPECT_EQ(KnStatusOk, Answer(deferred, 42));
    EXPECT_EQ(OkWith(42), call.Get());
}

TEST_P(DeferredReplyTest, AThreadThatEnds_AbandonsNothing) {
    const Handle client = Connect();
    Calling call(client);
    NkDeferredReply deferred;
    Background([&] {
        Record request;
        EXPECT_EQ(KnStatusOk, Receive(Channel(), request));
        EXPECT_EQ(KnStatusOk, NkDeferReply(&deferred));
    }).Get();
    EXPECT_EQ(KnStatusOk, Answer(deferred, 42));
    EXPECT_EQ(OkWith(42), call.Get());
}

TEST_P(DeferredReplyTest, AThreadThatDidNotDefer_AbandonsItsRequest) {
    const Handle client = Connect();
    const Handle other = Connect();
    Calling call(client, 1);
    const NkDeferredReply deferred = ReceiveAndDefer();
    Calling otherCall(other, 2);
    Background([&] {
        Record request;
        EXPECT_EQ(KnStatusOk, Receive(Channel(), request));
    }).Get();
    EXPECT_EQ(KnStatusAbandoned, otherCall.Status());
    EXPECT_EQ(KnStatusOk, Answer(deferred, 42));
    EXPECT_EQ(OkWith(42), call.Get());
}

TEST_P(DeferredReplyTest, StopReceiving_LeavesDeferredRepliesToBeAnswered) {
    const Handle client = Connect();
    Calling call(client);
    const NkDeferredReply deferred = ReceiveAndDefer();
    KnHandleStopReceiving();
    EXPECT_EQ(KnStatusOk, Answer(deferred, 42));
    EXPECT_EQ(OkWith(42), call.Get());
}

TEST_P(DeferredReplyTest, AThreadThatHasStoppedReceiving_MayStillDefer) {
    const Handle client = Connect();
    Calling call(client);
    Record request;
    NkDeferredReply deferred;
    ASSERT_EQ(KnStatusOk, Receive(Channel(), request));
    KnHandleStopReceiving();
    EXPECT_EQ(KnStatusOk, NkDeferReply(&deferred));
    EXPECT_EQ(KnStatusOk, Reply(Channel(), request));
    EXPECT_EQ(KnStatusOk, Answer(deferred, 42));
    EXPECT_EQ(OkWith(42), call.Get());
}

// What can be deferred.

TEST_P(DeferredReplyTest, AThreadThatOwesNoReply_HasNothingToDefer) {
    const Handle client = Connect();
    Background([&] {
        NkDeferredReply deferred;
        EXPECT_EQ(KnStatusInvalidArgument, NkDeferReply(&deferred)) << "it has never received";
        Calling call(client);
        Record request;
        EXPECT_EQ(KnStatusOk, Receive(Channel(), request));
        Background([] {
            NkDeferredReply other;
            EXPECT_EQ(KnStatusInvalidArgument, NkDeferReply(&other)) << "another thread has received";
        }).Get();
        EXPECT_EQ(KnStatusOk, Echo(Channel(), request));
        EXPECT_EQ(KnStatusInvalidArgument, NkDeferReply(&deferred)) << "it has replied";
        EXPECT_EQ(KnStatusOk, call.Status());

        Calling next(client);
        EXPECT_EQ(KnStatusOk, Receive(Channel(), request));
        EXPECT_EQ(KnStatusInvalidArgument, NkDeferReply(nullptr));
        EXPECT_EQ(KnStatusOk, NkDeferReply(&deferred));
        NkDeferredReply again;
        EXPECT_EQ(KnStatusInvalidArgument, NkDeferReply(&again)) << "it has deferred";
        EXPECT_EQ(KnStatusOk, Reply(Channel(), request));
        EXPECT_EQ(KnStatusInvalidArgument, NkDeferReply(&again)) << "it has deferred and replied";
        EXPECT_EQ(KnStatusOk, Answer(deferred, 42));
        EXPECT_EQ(OkWith(42), next.Get());
    }).Get();
}

TEST_P(DeferredReplyTest, OfRepliesOnSeveralChannels_TheLastReceivedIsDeferred) {
    const Handle client = Connect();
    const Handle elsewhere = RegisterStatic("elsewhere");
    const Handle other = ConnectStatic("elsewhere");
    Calling call(client, 1);
    Calling otherCall(other, 2);
    Record request;
    Record otherRequest;
    ASSERT_EQ(KnStatusOk, Receive(elsewhere.Get(), otherRequest));
    ASSERT_EQ(KnStatusOk, Receive(Channel(), request));
    NkDeferredReply deferred;
    ASSERT_EQ(KnStatusOk, NkDeferReply(&deferred));
    EXPECT_EQ(Channel(), deferred.channel);
    EXPECT_EQ(KnStatusInvalidArgument, NkDeferReply(&deferred));
    EXPECT_EQ(KnStatusOk, Echo(elsewhere.Get(), otherRequest)) << "the other one is owed as before";
    EXPECT_EQ(OkWith(3), otherCall.Get());
    EXPECT_EQ(KnStatusOk, Reply(Channel(), request));
    EXPECT_EQ(KnStatusOk, Answer(deferred, 42));
    EXPECT_EQ(OkWith(42), call.Get());
}

// The end of either side.

TEST_P(DeferredReplyTest, AClientThatGoesAway_EndsItsRequest) {
    Handle client = Connect();
    const Handle other = Connect();
    Calling call(client);
    const NkDeferredReply deferred = ReceiveAndDefer();
    client.Close();
    EXPECT_EQ(KnStatusClosed, call.Status());
    Await("the end of the client", [&] { return Answer(deferred, 42) == KnStatusPeerGone; });
    EXPECT_EQ(KnStatusPeerGone, Answer(deferred, 42));

    Calling otherCall(other, 5);
    const NkDeferredReply next = ReceiveAndDefer();
    EXPECT_EQ(KnStatusOk, Answer(next, 6)) << "other clients are served";
    EXPECT_EQ(OkWith(6), otherCall.Get());
}

TEST_P(DeferredReplyTest, ClientsThatGoAway_LeaveNothingBehind) {
    const Handle steady = Connect();
    {
        Calling call(steady);
        EXPECT_EQ(KnStatusOk, Answer(ReceiveAndDefer(), 2));
        EXPECT_EQ(OkWith(2), call.Get());
    }
    const std::size_t before = OpenDescriptors();
    std::vector<NkDeferredReply> forgotten;
    for (int round = 0; round < 20; ++round) {
        Handle client = Connect();
        Calling call(client);
        forgotten.push_back(ReceiveAndDefer());
        client.Close();
        EXPECT_EQ(KnStatusClosed, call.Status());
    }
    for (const NkDeferredReply& deferred : forgotten) { // names that refer to nothing
        Await("the end of the client", [&] { return Answer(deferred, 1) == KnStatusPeerGone; });
    }
    Await("the descriptors to close", [&] { return OpenDescriptors() <= before; });
    Calling call(steady);
    EXPECT_EQ(KnStatusOk, Answer(ReceiveAndDefer(), 2));
    EXPECT_EQ(OkWith(2), call.Get());
}

TEST_P(DeferredReplyTest, ClosingTheChannel_EndsAllDeferredRequests) {
    const Handle one = Connect();
    const Handle two = Connect();
    Calling callOne(one);
    const NkDeferredReply first = ReceiveAndDefer();
    Calling callTwo(two);
    const NkDeferredReply second = ReceiveAndDefer();
    ASSERT_EQ(KnStatusOk, KnHandleClose(Channel()));
    EXPECT_EQ(KnStatusClosed, callOne.Status());
    EXPECT_EQ(KnStatusClosed, callTwo.Status());
    for (const NkDeferredReply& deferred : {first, second}) {
        EXPECT_EQ(KnStatusClosed, Answer(deferred, 42));
        std::size_t taken = 0;
        EXPECT_EQ(KnStatusClosed, NkTakeBackOffers(deferred, &taken));
        Background([&] { EXPECT_EQ(KnStatusClosed, Answer(deferred, 42)); }).Get();
    }
}

TEST_P(DeferredReplyTest, ClosingTheChannel_EndsWhatIsNotDeferredYet) {
    const Handle client = Connect();
    Calling call(client);
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(Channel(), request));
    ASSERT_EQ(KnStatusOk, KnHandleClose(Channel()));
    EXPECT_EQ(KnStatusClosed, call.Status());
    NkDeferredReply deferred;
    EXPECT_EQ(KnStatusClosed, NkDeferReply(&deferred));
    EXPECT_EQ(KnStatusClosed, Reply(Channel(), request));
}

} // namespace
} // namespace platform_test
