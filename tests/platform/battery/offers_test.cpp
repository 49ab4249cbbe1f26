// Defends the offers of nk/deferred_reply.h: each reply that is offered ahead is taken by its client, for a repetition
// of its last request only, or is taken back, and never both.
#include "deferring.h"

#include <algorithm>
#include <random>

namespace platform_test {
namespace {

class OffersTest : public DeferredReplyTest {
protected:
    /// One call of `client` with 1, answered with `value` and these offers, all of which must be put.
    NkDeferredReply CallWithOffers(const Handle& client, std::int64_t value,
                                   const std::vector<std::int64_t>& ahead) const {
        Calling call(client);
        const NkDeferredReply deferred = ReceiveAndDefer();
        std::size_t put = 0;
        EXPECT_EQ(KnStatusOk, Answer(deferred, value, ahead, &put));
        EXPECT_EQ(ahead.size(), put);
        EXPECT_EQ(OkWith(value), call.Get());
        return deferred;
    }

    /// One call of `client` with `request`, which must reach the server.
    void CallThatIsReceived(const Handle& client, const Record& request = RequestOf(1)) const {
        Background call([&, handle = client.Get()] {
            Record response;
            EXPECT_EQ(KnStatusOk, Call(handle, request, response));
            return response.Value();
        });
        Record received;
        EXPECT_EQ(KnStatusOk, Receive(Channel(), received));
        EXPECT_EQ(0, std::memcmp(&request, &received, sizeof request));
        EXPECT_EQ(KnStatusOk, Reply(Channel(), RequestOf(-77)));
        EXPECT_EQ(-77, call.Get());
    }

    /// One call of `client` with 1, which nothing but an offer may answer: no thread receives.
    static void CallThatTakes(const Handle& client, std::int64_t value) {
        EXPECT_EQ(OkWith(value), Calling(client).Get());
    }
};

INSTANTIATE_TEST_SUITE_P(, OffersTest, testing::Values(ChannelKind::Static, ChannelKind::Dynamic), NameOf);

TEST_P(OffersTest, EqualRequests_TakeThemInOrder_AndTheServerReceivesNothing) {
    const Handle client = Connect();
    const NkDeferredReply deferred = CallWithOffers(client, 10, {11, 12, -13});
    CallThatTakes(client, 11);
    CallThatTakes(client, 12);
    CallThatTakes(client, -13);
    CallThatIsReceived(client);
    std::size_t taken = 0;
    EXPECT_EQ(KnStatusOk, NkTakeBackOffers(deferred, &taken));
    EXPECT_EQ(3u, taken);
}

TEST_P(OffersTest, EachEqualsTheReply_ExceptForItsValue) {
    const Handle client = Connect();
    for (const std::size_t offset : {std::size_t{24}, std::size_t{0}, std::size_t{101}, NkRecordSize - 8}) {
        Record reply;
        auto* const bytes = reinterpret_cast<std::uint8_t*>(&reply);
        for (std::size_t i = 0; i < sizeof reply; ++i) {
            bytes[i] = static_cast<std::uint8_t>(i * 7 + 1);
        }
        reply.header.size = NkRecordSize;
        const std::int64_t value = 0x1122334455667788;
        const auto call = [&] {
            Record response;
            EXPECT_EQ(KnStatusOk, Call(client.Get(), RequestOf(5), response));
            return response;
        };
        Background first(call);
        const NkDeferredReply deferred = ReceiveAndDefer();
        EXPECT_EQ(KnStatusOk, NkReplyDeferred(deferred, &reply.header, {offset, &value, 1}));
        Record response = first.Get();
        EXPECT_EQ(0, std::memcmp(&reply, &response, sizeof reply)) << offset;

        Background second(call);
        response = second.Get();
        std::memcpy(bytes + offset, &value, sizeof value);
        EXPECT_EQ(0, std::memcmp(&reply, &response, sizeof reply)) << offset;
        std::size_t taken = 0;
        EXPECT_EQ(KnStatusOk, NkTakeBackOffers(deferred, &taken));
        EXPECT_EQ(1u, taken);
    }
}

TEST_P(OffersTest, AnyOtherRequest_GoesToTheServer_AndEndsThem) {
    const Handle client = Connect();
    std::vector<Record> others(4, RequestOf(1));
    others[0].body.back() = std::byte{1};
    others[1].header.mid = 1;
    others[2].header.reserved[15] = 1;
    others[3].header.size |= 0x00800000; // a bit without a meaning
    for (const Record& other : others) {
        const NkDeferredReply deferred = CallWithOffers(client, 10, {11, 12});
        CallThatTakes(client, 11);
        CallThatIsReceived(client, other);
        CallThatIsReceived(client); // no repetition of the last one
        std::size_t taken = 0;
        EXPECT_EQ(KnStatusOk, NkTakeBackOffers(deferred, &taken));
        EXPECT_EQ(1u, taken);
    }
}

TEST_P(OffersTest, TakenBack_AreCountedAndNeverDelivered) {
    const Handle client = Connect();
    for (std::size_t taking = 0; taking <= 4; ++taking) {
        const NkDeferredReply deferred = CallWithOffers(client, 10, {11, 12, 13, 14});
        for (std::size_t i = 0; i < taking; ++i) {
            CallThatTakes(client, static_cast<std::int64_t>(11 + i));
        }
        std::size_t taken = 77;
        EXPECT_EQ(KnStatusOk, NkTakeBackOffers(deferred, &taken));
        EXPECT_EQ(taking, taken);
        CallThatIsReceived(client);
        taken = 77;
        EXPECT_EQ(KnStatusInvalidArgument, NkTakeBackOffers(deferred, &taken)) << "taken back before";
        EXPECT_EQ(77u, taken);
    }
}

TEST_P(OffersTest, AnyThread_TakesThemBack_AndOneOfTwo) {
    const Handle client = Connect();
    NkDeferredReply deferred;
    using Outcome = std::pair<std::int32_t, std::size_t>;
    Rivals<Outcome> rivals([&](int) {
        Outcome outcome{KnStatusOk, 77};
        outcome.first = NkTakeBackOffers(deferred, &outcome.second);
        return outcome;
    });
    for (int round = 0; round < 1000; ++round) {
        deferred = CallWithOffers(client, 10, {11, 12});
        CallThatTakes(client, 11);
        EXPECT_THAT(rivals.Race(),
                    testing::UnorderedElementsAre(Outcome{KnStatusOk, 1}, Outcome{KnStatusInvalidArgument, 77}));
    }
}

TEST_P(OffersTest, AReplyWithoutOffers_HasNoneToTakeBack) {
    const Handle client = Connect();
    const NkDeferredReply none = CallWithOffers(client, 10, {});
    std::size_t taken = 0;
    EXPECT_EQ(KnStatusInvalidArgument, NkTakeBackOffers(none, &taken));

    Calling call(client);
    const NkDeferredReply unanswered = ReceiveAndDefer();
    EXPECT_EQ(KnStatusInvalidArgument, NkTakeBackOffers(unanswered, &taken));
    EXPECT_EQ(KnStatusOk, Answer(unanswered, 20, {21}));
    EXPECT_EQ(OkWith(20), call.Get());
    EXPECT_EQ(KnStatusInvalidArgument, NkTakeBackOffers(none, &taken)) << "these came with another reply";
    EXPECT_EQ(KnStatusInvalidArgument, NkTakeBackOffers({}, &taken));
    NkDeferredReply unknown = unanswered;
    unknown.client += 1000;
    EXPECT_EQ(KnStatusInvalidArgument, NkTakeBackOffers(unknown, &taken));
    EXPECT_EQ(KnStatusInvalidArgument, NkTakeBackOffers(unanswered, nullptr));
    CallThatTakes(client, 21);
}

TEST_P(OffersTest, WhileSomeWereNotTakenBack_NewOnesAreNotPut) {
    const Handle client = Connect();
    const NkDeferredReply first = CallWithOffers(client, 10, {11, 12});
    CallThatTakes(client, 11);
    CallThatTakes(client, 12);

    Calling call(client);
    const NkDeferredReply second = ReceiveAndDefer();
    std::size_t put = 77;
    EXPECT_EQ(KnStatusOk, Answer(second, 13, {14, 15}, &put));
    EXPECT_EQ(0u, put);
    EXPECT_EQ(OkWith(13), call.Get()) << "the reply goes out all the same";
    std::size_t taken = 0;
    EXPECT_EQ(KnStatusInvalidArgument, NkTakeBackOffers(second, &taken));
    EXPECT_EQ(KnStatusOk, NkTakeBackOffers(first, &taken));
    EXPECT_EQ(2u, taken);

    const NkDeferredReply third = CallWithOffers(client, 20, {21, 22, 23});
    CallThatTakes(client, 21);
    EXPECT_EQ(KnStatusInvalidArgument, NkTakeBackOffers(first, &taken));
    EXPECT_EQ(KnStatusOk, NkTakeBackOffers(third, &taken));
    EXPECT_EQ(1u, taken);
}

TEST_P(OffersTest, TheirNumberAndPlace_AreLimited) {
    const Handle client = Connect();
    Calling call(client);
    const NkDeferredReply deferred = ReceiveAndDefer();
    const Record reply = RequestOf(0);
    const std::vector<std::int64_t> values = Values(1, NkMaxOffers + 1);
    std::size_t put = 0;
    EXPECT_EQ(KnStatusInvalidArgument,
              NkReplyDeferred(deferred, &reply.header, {ValueOffset, values.data(), NkMaxOffers + 1}, &put));
    EXPECT_EQ(KnStatusInvalidArgument,
              NkReplyDeferred(deferred, &reply.header, {NkRecordSize - 7, values.data(), 1}, &put));
    EXPECT_EQ(KnStatusInvalidArgument,
              NkReplyDeferred(deferred, &reply.header, {std::numeric_limits<std::size_t>::max(), values.data(), 1}));
    EXPECT_EQ(KnStatusOk, NkReplyDeferred(deferred, &reply.header, {ValueOffset, values.data(), NkMaxOffers}, &put))
        << "the request is still to be answered";
    EXPECT_EQ(NkMaxOffers, put);
    EXPECT_EQ(OkWith(0), call.Get());
    for (std::int64_t value = 1; value <= static_cast<std::int64_t>(NkMaxOffers); ++value) {
        ASSERT_EQ(OkWith(value), Calling(client).Get());
    }
    CallThatIsReceived(client);
}

TEST_P(OffersTest, OfAClientThatGoesAway_AreTaken) {
    Handle client = Connect();
    const Handle other = Connect();
    const NkDeferredReply deferred = CallWithOffers(client, 10, {11, 12});
    client.Close();
    Await("the end of the client", [&] { return Answer(deferred, 1) == KnStatusPeerGone; });
    std::size_t taken = 0;
    EXPECT_EQ(KnStatusPeerGone, NkTakeBackOffers(deferred, &taken));
    CallThatIsReceived(other);
}

TEST_P(OffersTest, AfterTheClientsHandleIsClosed_AreNotTaken) {
    Handle client = Connect();
    CallWithOffers(client, 10, {11, 12, 13});
    const KnHandle handle = client.Get();
    EXPECT_EQ(OkWith(11), CallFor(handle, 1)); // this thread knows the handle
    client.Close();
    EXPECT_EQ(KnStatusClosed, CallFor(handle, 1).status);
}

TEST_P(OffersTest, AfterTheChannelIsClosed_AreNotTaken) {
    const Handle client = Connect();
    CallWithOffers(client, 10, {11, 12});
    EXPECT_EQ(OkWith(11), CallFor(client.Get(), 1));
    ASSERT_EQ(KnStatusOk, KnHandleClose(Channel()));
    EXPECT_EQ(KnStatusClosed, CallFor(client.Get(), 1).status);
}

TEST_P(OffersTest, AfterReceivingHasStopped_AreStillTaken) {
    const Handle client = Connect();
    const NkDeferredReply deferred = CallWithOffers(client, 10, {11, 12});
    KnHandleStopReceiving();
    CallThatTakes(client, 11);
    std::size_t taken = 0;
    EXPECT_EQ(KnStatusOk, NkTakeBackOffers(deferred, &taken));
    EXPECT_EQ(1u, taken);
}

TEST_P(OffersTest, OfAnotherConnection_AreNotSeen) {
    const Handle client = Connect();
    const Handle other = Connect();
    const NkDeferredReply first = CallWithOffers(client, 10, {11, 12});
    CallThatIsReceived(other);
    const NkDeferredReply second = CallWithOffers(other, 20, {21, 22});
    CallThatTakes(client, 11);
    CallThatTakes(other, 21);
    CallThatTakes(other, 22);
    CallThatTakes(client, 12);
    std::size_t taken = 0;
    EXPECT_EQ(KnStatusOk, NkTakeBackOffers(second, &taken));
    EXPECT_EQ(2u, taken);
    EXPECT_EQ(KnStatusOk, NkTakeBackOffers(first, &taken));
    EXPECT_EQ(2u, taken);
}

// Whichever side has it wrong, the numbers that follow are too high or too low. The server takes back while the client
// takes one after the other. Now and then the client pauses, so that some are left for certain.
TEST_P(OffersTest, EachIsTakenOrTakenBack_WhenTheServerAndTheClientMeet) {
    constexpr int rounds = 3000;
    const Handle client = Connect();
    std::atomic<std::int64_t> seen{-1};
    std::atomic<std::int64_t> pausesAt{-1}; ///< until the others have been taken back
    Background serving([&] {
        constexpr unsigned seed = 2024;
        std::mt19937 random(seed);
        Counting numbers;
        for (int round = 0; round < rounds; ++round) {
            const NkDeferredReply deferred = ReceiveAndDefer();
            const std::size_t most = 1 + random() % NkMaxOffers;
            const std::size_t some = random() % most;
            const auto last = numbers.Next() + static_cast<std::int64_t>(some);
            const bool pauses = round % 100 == 0;
            if (pauses) {
                pausesAt = last;
            }
            numbers.Answer(deferred, most);
            Await("the client to take some", [&] { return seen >= last; });
            for (auto spins = random() % 500; spins > 0; --spins) {
                std::atomic_signal_fence(std::memory_order_seq_cst);
            }
            const auto taken = numbers.TakeBack();
            if (pauses) {
                EXPECT_EQ(some, taken);
                pausesAt = -1;
            }
        }
        EXPECT_EQ(KnStatusOk, Answer(ReceiveAndDefer(), -1));
        return numbers.Next();
    });
    Returned returned;
    for (std::int64_t value = 0; (returned = CallFor(client.Get(), 1)) != OkWith(-1); ++value) {
        ASSERT_EQ(OkWith(value), returned);
        seen = value;
        if (pausesAt == value) {
            Await("the server to take the others back", [&] { return pausesAt != value; });
        }
        if (value % 8 == 0) { // with one processor, this is where the server comes in
            std::this_thread::yield();
        }
    }
    EXPECT_EQ(serving.Get() - 1, seen);
}

TEST_P(OffersTest, SeveralThreadsOnOneConnection_TakeEachOnce) {
    constexpr int threads = 4;
    constexpr int calls = 500;
    const Handle client = Connect();
    std::vector<std::vector<std::int64_t>> taken(threads);
    {
        Background serving([&] {
            Counting numbers;
            Record request;
            NkDeferredReply deferred;
            while (Receive(Channel(), request) == KnStatusOk) {
                EXPECT_EQ(KnStatusOk, NkDeferReply(&deferred));
                EXPECT_EQ(KnStatusOk, Reply(Channel(), request));
                EXPECT_EQ(numbers.Next() == 0 ? std::nullopt : std::optional<std::size_t>(5), numbers.TakeBack())
                    << "a request comes when all are taken";
                numbers.Answer(deferred, 5);
            }
        });
        {
            std::vector<std::unique_ptr<Background<void>>> callers;
            for (std::vector<std::int64_t>& values : taken) {
                callers.push_back(std::make_unique<Background<void>>([&client, &values] {
                    for (int call = 0; call < calls; ++call) {
                        const Returned returned = CallFor(client.Get(), 1);
                        EXPECT_EQ(KnStatusOk, returned.status);
                        values.push_back(returned.value);
                    }
                }));
            }
        }
        KnHandleStopReceiving();
    }
    std::vector<std::int64_t> all;
    for (const std::vector<std::int64_t>& values : taken) {
        EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
        all.insert(all.end(), values.begin(), values.end());
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(Values(0, threads * calls), all);
}

} // namespace
} // namespace platform_test
