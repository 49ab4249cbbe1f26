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

inline Returned OkWith(std::int64_t value) {
    return {KnStatusOk, value};
}

} // namespace platform_test
