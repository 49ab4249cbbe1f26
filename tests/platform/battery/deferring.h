#pragma once

#include "nk/deferred_reply.h"
#include "support.h"

#include <numeric>

// What the tests of deferred replies and of offers share: both kinds of channels, a thread that defers, a call on a
// thread of its own.

namespace platform_test {

inline constexpr std::size_t ValueOffset = sizeof(nk_message); // of Record::Value

/// A channel and its clients, as a server gets them in either way.
class Line {
public:
    virtual ~Line() = default;
    KnHandle Channel() const { return channel; }
    virtual Handle Connect() = 0;

protected:
    KnHandle channel = KnInvalidHandle;
};

class StaticLine final : public Line {
public:
    StaticLine() { channel = server.Get(); }
    Handle Connect() override { return ConnectStatic(); }

private:
    const Handle server = RegisterStatic();
};

class DynamicLine final : public Line {
public:
    DynamicLine() {
        EXPECT_EQ(KnStatusOk, Publish("service"));
        Joined joined = Join("service");
        channel = joined.channel;
        first = std::move(joined.client); // no channel without a client
    }
    Handle Connect() override {
        if (first.Get() != KnInvalidHandle) {
            return std::move(first);
        }
        return Join("service", 0, channel).client;
    }

private:
    Handle first{KnInvalidHandle};
};

enum class ChannelKind { Static, Dynamic };

class DeferredReplyTest : public PlatformTest, public testing::WithParamInterface<ChannelKind> {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        line = GetParam() == ChannelKind::Static ? std::unique_ptr<Line>(std::make_unique<StaticLine>())
                                                 : std::make_unique<DynamicLine>();
    }
    void TearDown() override {
        line.reset();
        PlatformTest::TearDown();
    }

    KnHandle Channel() const { return line->Channel(); }
    Handle Connect() const { return line->Connect(); }

    /// Receives a request and defers its reply; the thread then makes its own, as a serving loop does.
    NkDeferredReply ReceiveAndDefer() const {
        Record request;
        NkDeferredReply deferred;
        EXPECT_EQ(KnStatusOk, Receive(Channel(), request));
        EXPECT_EQ(KnStatusOk, NkDeferReply(&deferred));
        EXPECT_EQ(KnStatusOk, Reply(Channel(), request));
        return deferred;
    }

    std::unique_ptr<Line> line;
};

inline std::string NameOf(const testing::TestParamInfo<ChannelKind>& kind) {
    return kind.param == ChannelKind::Static ? "StaticChannel" : "DynamicChannel";
}

/// Answers with `value`, and with those in `ahead` as offers. `*put`: how many of them were put.
inline std::int32_t Answer(const NkDeferredReply& deferred, std::int64_t value,
                           const std::vector<std::int64_t>& ahead = {}, std::size_t* put = nullptr) {
    const Record response = RequestOf(value);
    return NkReplyDeferred(deferred, &response.header, {ValueOffset, ahead.data(), ahead.size()}, put);
}

inline std::vector<std::int64_t> Values(std::int64_t first, std::size_t count) {
    std::vector<std::int64_t> values(count);
    std::iota(values.begin(), values.end(), first);
    return values;
}

struct Returned {
    std::int32_t status = KnStatusOk;
    std::int64_t value = 0;

    bool operator==(const Returned&) const = default;
};

inline void PrintTo(const Returned& returned, std::ostream* out) {
    *out << "status " << returned.status << ", value " << returned.value;
}

inline Returned CallFor(KnHandle client, std::int64_t value) {
    Returned returned;
    returned.status = CallWith(client, value, &returned.value);
    return returned;
}

/// A call with `value` on a thread of its own.
class Calling final {
public:
    explicit Calling(const Handle& client, std::int64_t value = 1)
        : call([handle = client.Get(), value] { return CallFor(handle, value); }) {}

    Returned Get() { return call.Get(); }
    std::int32_t Status() { return Get().status; }
    void AwaitBlocked() const { call.AwaitBlocked(); }

private:
    Background<Returned> call;
};

/// Two threads that do the same at the same time, again and again: the calling one, and one of its own.
template <typename Result>
class Rivals final {
public:
    explicit Rivals(std::function<Result(int rival)> given) : step(std::move(given)) {}
    Rivals(Rivals&&) = delete;
    ~Rivals() { round = -1; }

    std::array<Result, 2> Race() {
        const int now = ++round;
        Await("the rival's start", [&] { return started == now; });
        for (int spins = now % 100; spins > 0; --spins) { // the other one has a way to go, too
            std::atomic_signal_fence(std::memory_order_seq_cst);
        }
        Result own = step(0);
        Await("the rival's end", [&] { return ended == now; });
        return {std::move(own), std::move(result)};
    }

private:
    const std::function<Result(int)> step;
    std::atomic<int> round{0};
    std::atomic<int> started{0};
    std::atomic<int> ended{0};
    Result result{}; ///< of the rival; handed over by `ended`
    Background<void> rival{[this] {
        for (int last = 0; true; ++last) {
            Await("the next round", [&] { return round != last; });
            if (round < 0) {
                return;
            }
            started = last + 1;
            result = step(1);
            ended = last + 1;
        }
    }};
};

/// A server that answers each request with the next number, and offers some of those that follow.
class Counting final {
public:
    /// Answers a request that was deferred, with up to `most` offers.
    void Answer(const NkDeferredReply& deferred, std::size_t most) {
        TakeBack();
        std::size_t put = 0;
        EXPECT_EQ(KnStatusOk, platform_test::Answer(deferred, next, Values(next + 1, most), &put));
        EXPECT_EQ(most, put);
        ++next;
        if (put > 0) {
            offering = deferred;
        }
    }

    /// Returns: how many of the offers were taken; nothing when none are outstanding.
    std::optional<std::size_t> TakeBack() {
        if (!offering) {
            return std::nullopt;
        }
        std::size_t taken = 0;
        EXPECT_EQ(KnStatusOk, NkTakeBackOffers(*std::exchange(offering, std::nullopt), &taken));
        next += static_cast<std::int64_t>(taken);
        return taken;
    }

    std::int64_t Next() const { return next; }

private:
    std::int64_t next = 0;
    std::optional<NkDeferredReply> offering;
};

inline Returned OkWith(std::int64_t value) {
    return {KnStatusOk, value};
}

} // namespace platform_test
