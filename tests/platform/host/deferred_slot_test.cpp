// Defends deferred replies and offers inside one process and over one mapping, so that a thread sanitizer sees both
// sides: one thread wins a deferred request, and each offer has one owner, with its value.
#include "nk/deferred_reply.h"
#include "one_mapping.h"

#include <numeric>
#include <random>

namespace platform_test {
namespace {

using borven_host::Channel;

constexpr std::size_t ValueOffset = sizeof(nk_message);

NkDeferredReply ReceiveAndDefer(Channel& channel, Record& request) {
    NkDeferredReply deferred;
    EXPECT_EQ(KnStatusOk, ReceiveFrom(channel, request));
    EXPECT_EQ(KnStatusOk, channel.Defer(deferred));
    EXPECT_EQ(KnStatusOk, channel.Reply(&request.header));
    return deferred;
}

std::int32_t Answer(Channel& channel, const NkDeferredReply& deferred, std::int64_t value, std::size_t ahead = 0) {
    std::array<std::int64_t, NkMaxOffers> values{};
    std::iota(values.begin(), values.end(), value + 1);
    const Record response = RequestOf(value);
    std::size_t offered = 0;
    const auto status = channel.ReplyDeferred(deferred, response.header, {ValueOffset, values.data(), ahead}, offered);
    EXPECT_EQ(status == KnStatusOk ? ahead : 0, offered);
    return status;
}

// Of two threads that answer each request, the one that wins is the one whose value arrives.
TEST(DeferredSlot, OfTwoThreadsThatAnswer_OneWins) {
    constexpr int rounds = 3000;
    Channel channel(Channel::DeadClient::ReplyAnswersOk);
    const Client joined = JoinOverOneMapping(channel);
    std::array<NkDeferredReply, rounds> deferred;
    std::array<std::atomic<int>, rounds> winner{};
    std::atomic<int> received{0};
    std::vector<std::unique_ptr<Background<void>>> answering;
    for (int rival = 1; rival <= 2; ++rival) {
        answering.push_back(std::make_unique<Background<void>>([&, rival] {
            for (std::size_t round = 0; round < rounds; ++round) {
                Await("the next request", [&] { return received > static_cast<int>(round); });
                if (Answer(channel, deferred[round], rival) == KnStatusOk) {
                    winner[round] += rival;
                }
            }
        }));
    }
    Background serving([&] {
        Record request;
        for (auto& next : deferred) {
            next = ReceiveAndDefer(channel, request);
            ++received;
        }
    });
    std::vector<std::int64_t> values;
    for (int round = 0; round < rounds; ++round) {
        std::int64_t value = 0;
        ASSERT_EQ(KnStatusOk, CallOn(*joined.connection, 1, &value));
        values.push_back(value);
    }
    serving.Get();
    answering.clear();
    for (std::size_t round = 0; round < rounds; ++round) {
        ASSERT_EQ(values[round], winner[round]);
    }
}

// The server takes back while the client takes one after the other.
TEST(DeferredSlot, Offers_AreTakenOrTakenBack) {
    constexpr int rounds = 2000;
    Channel channel(Channel::DeadClient::ReplyAnswersOk);
    const Client joined = JoinOverOneMapping(channel);
    std::atomic<std::int64_t> seen{-1};
    Background serving([&] {
        constexpr unsigned seed = 5;
        std::mt19937 random(seed);
        std::int64_t next = 0;
        Record request;
        for (int round = 0; round < rounds; ++round) {
            const NkDeferredReply deferred = ReceiveAndDefer(channel, request);
            const std::size_t ahead = 1 + random() % NkMaxOffers;
            const auto last = next + static_cast<std::int64_t>(random() % ahead);
            EXPECT_EQ(KnStatusOk, Answer(channel, deferred, next, ahead));
            Await("the client to take some", [&] { return seen >= last; });
            for (auto spins = random() % 500; spins > 0; --spins) {
                std::atomic_signal_fence(std::memory_order_seq_cst);
            }
            std::size_t taken = 0;
            EXPECT_EQ(KnStatusOk, channel.TakeBackOffers(deferred, taken));
            EXPECT_LE(taken, ahead);
            next += 1 + static_cast<std::int64_t>(taken);
        }
        EXPECT_EQ(KnStatusOk, Answer(channel, ReceiveAndDefer(channel, request), -1));
        return next;
    });
    std::int64_t value = 0;
    for (std::int64_t expected = 0; true; ++expected) {
        ASSERT_EQ(KnStatusOk, CallOn(*joined.connection, 1, &value));
        if (value == -1) {
            break;
        }
        ASSERT_EQ(expected, value);
        seen = value;
        if (value % 8 == 0) { // with one processor, this is where the server comes in
            std::this_thread::yield();
        }
    }
    EXPECT_EQ(seen + 1, serving.Get());
}

// A connection that ends while a reply puts its offers has none of them afterwards.
TEST(DeferredSlot, OffersOfAConnectionThatEndsMeanwhile_AreNotTaken) {
    for (int round = 0; round < 1000; ++round) {
        Channel channel(Channel::DeadClient::ReplyAnswersOk);
        const Client joined = JoinOverOneMapping(channel);
        Record request;
        NkDeferredReply deferred;
        std::atomic<bool> isDeferred{false};
        Background call([&] {
            std::int64_t value = 0;
            return CallOn(*joined.connection, 1, &value);
        });
        Background closing([&] {
            Await("the deferral", [&] { return isDeferred.load(); });
            for (int spins = round; spins > 0; --spins) {
                std::atomic_signal_fence(std::memory_order_seq_cst);
            }
            channel.Close();
        });
        deferred = ReceiveAndDefer(channel, request);
        isDeferred = true;
        const Record response = RequestOf(2);
        const std::array<std::int64_t, 2> ahead{3, 4};
        std::size_t offered = 0;
        const auto status = channel.ReplyDeferred(deferred, response.header, {ValueOffset, ahead.data(), 2}, offered);
        EXPECT_THAT(status, testing::AnyOf(KnStatusOk, KnStatusPeerGone, KnStatusClosed));
        call.Get();
        closing.Get();
        EXPECT_EQ(KnStatusClosed, CallOn(*joined.connection, 1)) << round;
    }
}

} // namespace
} // namespace platform_test
