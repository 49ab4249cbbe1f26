// Defends deferred replies and offers against clients that use their page against the protocol, that speak the layout
// before offers, or that are killed; and shows what a killed server leaves to its clients.
#include "nk/deferred_reply.h"
#include "process.h"
#include "raw_slot.h"

#include <random>

namespace platform_test {
namespace {

using borven_host::OfferWord;
using borven_host::SharedSlot;

constexpr std::size_t ValueOffset = sizeof(nk_message);

class RudeOffersTest : public PlatformTest {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        server = RegisterStatic();
    }
    void TearDown() override {
        server.Close();
        PlatformTest::TearDown();
    }

    NkDeferredReply ReceiveAndDefer(std::int64_t expected) const {
        Record request;
        NkDeferredReply deferred;
        EXPECT_EQ(KnStatusOk, Receive(server.Get(), request));
        EXPECT_EQ(expected, request.Value());
        EXPECT_EQ(KnStatusOk, NkDeferReply(&deferred));
        EXPECT_EQ(KnStatusOk, Reply(server.Get(), request));
        return deferred;
    }

    /// Answers with 100 and offers what follows. Returns: how many were put.
    static std::size_t AnswerWithOffers(const NkDeferredReply& deferred, std::size_t count) {
        const Record response = RequestOf(100);
        std::vector<std::int64_t> values;
        for (std::size_t i = 0; i < count; ++i) {
            values.push_back(static_cast<std::int64_t>(101 + i));
        }
        std::size_t put = 0;
        EXPECT_EQ(KnStatusOk,
                  NkReplyDeferred(deferred, &response.header, {ValueOffset, values.data(), values.size()}, &put));
        return put;
    }

    /// A call of `client`, answered with 100 and `count` offers.
    NkDeferredReply CallWithOffers(RawSlot& client, std::size_t count) const {
        client.Send(RequestOf(1));
        const NkDeferredReply deferred = ReceiveAndDefer(1);
        EXPECT_EQ(count, AnswerWithOffers(deferred, count));
        Record response;
        EXPECT_EQ(KnStatusOk, client.AwaitReply(&response));
        EXPECT_EQ(100, response.Value());
        return deferred;
    }

    static std::size_t TakeBack(const NkDeferredReply& deferred) {
        std::size_t taken = 0;
        EXPECT_EQ(KnStatusOk, NkTakeBackOffers(deferred, &taken));
        return taken;
    }

    Handle server{KnInvalidHandle};
};

/// A client that keeps to the protocol and has offers of its own, which it takes at the end.
class Bystander final {
public:
    explicit Bystander(KnHandle channel) {
        Background call([this] { return Get(); });
        Record request;
        EXPECT_EQ(KnStatusOk, Receive(channel, request));
        EXPECT_EQ(KnStatusOk, NkDeferReply(&deferred));
        EXPECT_EQ(KnStatusOk, Reply(channel, request));
        const Record response = RequestOf(-1);
        EXPECT_EQ(KnStatusOk, NkReplyDeferred(deferred, &response.header, {ValueOffset, Values.data(), Values.size()}));
        EXPECT_EQ(-1, call.Get());
    }
    ~Bystander() {
        EXPECT_EQ(Values[0], Get());
        EXPECT_EQ(Values[1], Get());
        std::size_t taken = 0;
        EXPECT_EQ(KnStatusOk, NkTakeBackOffers(deferred, &taken));
        EXPECT_EQ(2u, taken);
    }

private:
    std::int64_t Get() const {
        std::int64_t value = 0;
        EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 7, &value));
        return value;
    }

    static constexpr std::array<std::int64_t, 3> Values{-2, -3, -4};
    const Handle client = ConnectStatic();
    NkDeferredReply deferred;
};

TEST_F(RudeOffersTest, TakenByTheProtocol_AreCounted) {
    RawSlot client;
    for (std::uint32_t next = 0; next <= 5; ++next) {
        const NkDeferredReply deferred = CallWithOffers(client, 5);
        const OfferWord word(client.Slot().offers.word.load());
        EXPECT_EQ(deferred.call, word.Sequence());
        EXPECT_EQ(0u, word.Next());
        EXPECT_EQ(5u, word.Count());
        EXPECT_EQ(ValueOffset, client.Slot().offers.offset.load());
        EXPECT_EQ(101, client.Slot().offers.values[0].load());
        EXPECT_EQ(105, client.Slot().offers.values[4].load());
        client.Slot().offers.word.store(OfferWord(word.Sequence(), next, 5).Raw());
        EXPECT_EQ(next, TakeBack(deferred));
        EXPECT_EQ(0u, client.Slot().offers.word.load());
    }
}

TEST_F(RudeOffersTest, WhoseWordMakesNoSense_CountAsAllTaken_AndTheNextOnesAreSound) {
    const Bystander other(server.Get());
    RawSlot client;
    constexpr std::uint32_t count = 5;
    struct Nonsense {
        std::uint32_t sequence; // added to that of the call
        std::uint32_t next;
        std::uint32_t count;
    };
    for (const auto& [sequence, next, ofCount] : std::initializer_list<Nonsense>{
             {0, 6, 5},
             {0, 200, 5},
             {0, 0xFFFF, 5}, // more than there are
             {0, 0, 0},
             {0, 2, 4},
             {0, 2, 6},
             {0, 2, 200},
             {0, 2, 201},
             {0, 2, 0xFFFF}, // another number of offers
             {1, 2, 5},
             {~0U, 2, 5},
             {0x80000000, 2, 5},
             {1, 0, 0}, // of another call
         }) {
        const NkDeferredReply deferred = CallWithOffers(client, count);
        client.Slot().offers.word.store(OfferWord(deferred.call + sequence, next, ofCount).Raw());
        EXPECT_EQ(count, TakeBack(deferred)) << sequence << ", " << next << ", " << ofCount;
    }
    for (const std::uint64_t nonsense : {std::uint64_t{0}, ~std::uint64_t{0}}) {
        const NkDeferredReply deferred = CallWithOffers(client, count);
        client.Slot().offers.word.store(nonsense);
        EXPECT_EQ(count, TakeBack(deferred)) << nonsense;
    }
    const NkDeferredReply deferred = CallWithOffers(client, count);
    EXPECT_EQ(0u, TakeBack(deferred));
}

TEST_F(RudeOffersTest, AtRandom_NeverCountForMoreThanThereWere) {
    const Bystander other(server.Get());
    constexpr unsigned seed = 31;
    std::mt19937_64 random(seed);
    RawSlot client;
    for (int round = 0; round < 500; ++round) {
        const std::size_t count = 1 + random() % NkMaxOffers;
        const NkDeferredReply deferred = CallWithOffers(client, count);
        auto* const words = reinterpret_cast<std::atomic<std::uint64_t>*>(&client.Slot().offers);
        for (int i = 0; i < 20; ++i) {
            words[random() % (sizeof(client.Slot().offers) / 8)].store(random());
        }
        if (round % 2 == 0) { // a word that could be right
            client.Slot().offers.word.store(OfferWord(deferred.call, static_cast<std::uint32_t>(random() % 0x10000),
                                                      static_cast<std::uint32_t>(count))
                                                .Raw());
        }
        EXPECT_LE(TakeBack(deferred), count);
    }
}

TEST_F(RudeOffersTest, ThatAreForgedWhileNoneAreOutstanding_AreNothingToTakeBack) {
    RawSlot client;
    const NkDeferredReply deferred = CallWithOffers(client, 0);
    client.Slot().offers.word.store(OfferWord(deferred.call, 1, 5).Raw());
    std::size_t taken = 77;
    EXPECT_EQ(KnStatusInvalidArgument, NkTakeBackOffers(deferred, &taken));
    EXPECT_EQ(77u, taken);
    const NkDeferredReply next = CallWithOffers(client, 3);
    EXPECT_EQ(0u, TakeBack(next));
}

TEST_F(RudeOffersTest, WhileOthersAreOutstanding_AreNotPut_WhateverThePageSays) {
    RawSlot client;
    const NkDeferredReply deferred = CallWithOffers(client, 3);
    client.Slot().offers.word.store(0); // as if they were taken back
    client.Send(RequestOf(2));
    const NkDeferredReply next = ReceiveAndDefer(2);
    EXPECT_EQ(0u, AnswerWithOffers(next, 3));
    EXPECT_EQ(KnStatusOk, client.AwaitReply());
    EXPECT_EQ(3u, TakeBack(deferred));
}

TEST_F(RudeOffersTest, ThatPublishesWhileItsRequestIsDeferred_WaitsItsTurn) {
    RawSlot client;
    client.Send(RequestOf(1));
    const NkDeferredReply deferred = ReceiveAndDefer(1);
    client.Send(RequestOf(2));
    const Handle other = ConnectStatic();
    Background call([&] { return CallWith(other.Get(), 7); });
    Record request;
    ASSERT_EQ(KnStatusOk, Receive(server.Get(), request));
    EXPECT_EQ(7, request.Value()) << "the request of the client that is deferred must not be received";
    EXPECT_EQ(KnStatusOk, Echo(server.Get(), request));
    EXPECT_EQ(KnStatusOk, call.Get());

    EXPECT_EQ(0u, AnswerWithOffers(deferred, 0));
    EXPECT_EQ(deferred.call, client.Reply().Sequence());
    client.Ring();
    const NkDeferredReply next = ReceiveAndDefer(2);
    EXPECT_EQ(0u, AnswerWithOffers(next, 0));
    EXPECT_EQ(KnStatusOk, client.AwaitReply());
}

TEST_F(RudeOffersTest, ThatIsEndedWhileItsRequestIsDeferred_IsGone) {
    RawSlot client;
    client.Send(RequestOf(1));
    const NkDeferredReply deferred = ReceiveAndDefer(1);
    const Handle other = ConnectStatic();
    {
        Background serving([&] {
            Record request;
            while (Receive(server.Get(), request) == KnStatusOk && request.Value() != 0) {
                EXPECT_EQ(KnStatusOk, Echo(server.Get(), request));
            }
            return Echo(server.Get(), request);
        });
        Await("the end of a client that rings without a request", [&] {
            client.Ring();
            EXPECT_EQ(KnStatusOk, CallWith(other.Get(), 1));
            pollfd ended{client.Socket().Get(), POLLRDHUP, 0};
            return ::poll(&ended, 1, 0) == 1;
        });
        EXPECT_EQ(KnStatusOk, CallWith(other.Get(), 0));
        EXPECT_EQ(KnStatusOk, serving.Get());
    }
    const Record response = RequestOf(100);
    EXPECT_EQ(KnStatusPeerGone, NkReplyDeferred(deferred, &response.header));
    EXPECT_FALSE(client.IsAnswered());
    std::size_t taken = 0;
    Await("the client to be removed", [&] { return NkTakeBackOffers(deferred, &taken) == KnStatusPeerGone; });
}

TEST_F(RudeOffersTest, ToAClientOfTheLayoutBefore_AreNotPut) {
    RawSlot client(1);
    EXPECT_EQ(1u, client.Slot().version);
    EXPECT_EQ(2240u, client.Slot().size);
    for (int round = 0; round < 3; ++round) {
        client.Send(RequestOf(1));
        const NkDeferredReply deferred = ReceiveAndDefer(1);
        EXPECT_EQ(0u, AnswerWithOffers(deferred, 3));
        Record response;
        EXPECT_EQ(KnStatusOk, client.AwaitReply(&response));
        EXPECT_EQ(100, response.Value());
        std::size_t taken = 0;
        EXPECT_EQ(KnStatusInvalidArgument, NkTakeBackOffers(deferred, &taken));
    }
    client.Slot().version = borven_host::LayoutVersion; // changes nothing
    client.Send(RequestOf(1));
    EXPECT_EQ(0u, AnswerWithOffers(ReceiveAndDefer(1), 3));
    EXPECT_EQ(KnStatusOk, client.AwaitReply());
    const auto* const page = reinterpret_cast<const std::byte*>(&client.Slot());
    EXPECT_TRUE(std::all_of(page + 2240, page + 4096, [](std::byte byte) { return byte == std::byte{0}; }));
}

// Between processes, and across their deaths.

using OffersBetweenProcessesTest = RudeOffersTest;

TEST_F(OffersBetweenProcessesTest, AreTaken_AndAKilledClientIsGone) {
    Process client({"connect", "line", "call", "1", "call", "1", "call", "1", "wait"});
    EXPECT_EQ("connect 0", client.Hear());
    const NkDeferredReply deferred = ReceiveAndDefer(1);
    EXPECT_EQ(5u, AnswerWithOffers(deferred, 5));
    for (int call = 0; call < 3; ++call) {
        EXPECT_EQ("call 0", client.Hear());
    }
    client.Kill();
    std::size_t taken = 2;
    Await("the death of the client", [&] {
        const auto status = NkTakeBackOffers(deferred, &taken);
        EXPECT_EQ(2u, taken);
        return status == KnStatusPeerGone;
    });
}

TEST_F(OffersBetweenProcessesTest, AClientThatIsKilled_EndsItsDeferredRequest) {
    const std::size_t before = OpenDescriptors();
    NkDeferredReply deferred;
    {
        Process client({"connect", "line", "call", "1"});
        EXPECT_EQ("connect 0", client.Hear());
        deferred = ReceiveAndDefer(1);
        client.Kill();
    }
    Await("the descriptors of the dead client to close", [&] { return OpenDescriptors() <= before; });
    const Record response = RequestOf(100);
    EXPECT_EQ(KnStatusPeerGone, NkReplyDeferred(deferred, &response.header));
}

TEST_F(OffersBetweenProcessesTest, AServerThatIsKilled_LeavesThemToBeTaken) {
    server.Close();
    Process killed({"register", "line", "receive", "reply-with-offers", "3", "wait"});
    EXPECT_EQ("register 1", killed.Hear());
    {
        const Handle client = ConnectStatic();
        std::int64_t value = 0;
        EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1, &value));
        EXPECT_EQ(100, value);
        EXPECT_EQ("receive 0", killed.Hear());
        EXPECT_EQ("reply-with-offers 3", killed.Hear());
        EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1, &value));
        EXPECT_EQ(101, value);
        killed.Kill();
        EXPECT_EQ(KnStatusOk, CallWith(client.Get(), 1, &value));
        EXPECT_EQ(102, value);
        EXPECT_EQ(KnStatusClosed, CallWith(client.Get(), 2));
        EXPECT_EQ(KnStatusClosed, CallWith(client.Get(), 1)) << "the connection stays closed";
    }
    Reclaim();
}

TEST_F(OffersBetweenProcessesTest, AForkedChild_CanNeitherAnswerNorTakeBack) {
    RawSlot client;
    const NkDeferredReply offered = CallWithOffers(client, 3);
    client.Send(RequestOf(2));
    const NkDeferredReply deferred = ReceiveAndDefer(2);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const Record response = RequestOf(5);
        std::size_t taken = 0;
        NkDeferredReply other;
        const bool isRefused = NkReplyDeferred(deferred, &response.header) == KnStatusClosed &&
                               NkTakeBackOffers(offered, &taken) == KnStatusClosed &&
                               NkDeferReply(&other) == KnStatusClosed;
        ::_exit(isRefused ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(0u, TakeBack(offered));
    EXPECT_EQ(0u, AnswerWithOffers(deferred, 0));
    EXPECT_EQ(KnStatusOk, client.AwaitReply());
}

} // namespace
} // namespace platform_test
