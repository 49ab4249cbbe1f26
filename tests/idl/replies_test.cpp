// Defends the functions that write a reply outside of a handler: the record is the one that the dispatch completes for
// a handler with the same outputs and result, byte for byte, and a text is cut where the bus's own handler cuts it.
#include "br_MessageBus.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

namespace {

using Bytes = std::array<unsigned char, NkRecordSize>;
using Writer = std::function<void(nk_message*)>;

constexpr unsigned char Dirt = 0xAA; // what every buffer holds before
constexpr std::int32_t Results[] = {
    0,     -16384,  -49152, -344064, -2147467264, // success, error results
    16384, -0x4001, -42,    -1,      -0x3FFF,     0x8000, std::numeric_limits<std::int32_t>::min(),
};

Bytes Written(const Writer& writer) {
    br_MessageBus_component_res response;
    std::memset(response.record, Dirt, sizeof(response.record));
    writer(&response.header);
    Bytes bytes;
    std::memcpy(bytes.data(), response.record, bytes.size());
    return bytes;
}

/// What the handlers write and return.
struct Outcome {
    Writer write;
    std::int32_t result;
};

template <typename Interface>
struct Scripted : Interface {
    Outcome* outcome = nullptr;
};

template <typename Interface, typename Request, typename Response>
std::int32_t Handler(Interface* self, const Request*, const nk_arena*, Response* response, nk_arena*) {
    const Outcome& outcome = *static_cast<Scripted<Interface>*>(self)->outcome;
    outcome.write(&response->header);
    return outcome.result;
}

constexpr br_MessageBusProvider_ops ProviderOps{&Handler};
constexpr br_MessageBusCtl_ops CtlOps{&Handler, &Handler, &Handler, &Handler, &Handler, &Handler};
constexpr br_MessageBusSubs_ops SubsOps{&Handler};

/// The record that the dispatch completes for a handler that writes with `write` and returns `result`.
Bytes Dispatched(std::uint16_t iid, std::uint16_t mid, std::int32_t result, const Writer& write) {
    Outcome outcome{write, result};
    Scripted<br_MessageBusProvider> provider{{&ProviderOps}, &outcome};
    Scripted<br_MessageBusCtl> ctl{{&CtlOps}, &outcome};
    Scripted<br_MessageBusSubs> subs{{&SubsOps}, &outcome};
    br_MessageBusComponent_component component{&provider, &ctl, &subs};
    br_MessageBus_component entity{&component};
    br_MessageBus_component_req request;
    std::memset(request.record, 0, sizeof(request.record));
    request.header.iid = iid;
    request.header.mid = mid;
    request.header.size = NkRecordSize;
    const nk_arena requestArena{};
    nk_arena responseArena{};
    return Written([&](nk_message* response) {
        br_MessageBus_entity_dispatch(&entity, &request.header, &requestArena, response, &responseArena);
    });
}

/// Writes as the bus's own handler of Wait does.
Writer WaitHandler(std::string_view topic, std::int64_t message) {
    return [topic, message](nk_message* header) {
        auto* response = reinterpret_cast<br_MessageBusSubs_Wait_res*>(header);
        const std::size_t length = std::min<std::size_t>(topic.size(), 1022);
        std::memcpy(response->topic, topic.data(), length);
        std::memset(response->topic + length, 0, 1023 - length);
        response->message = message;
    };
}

Bytes WaitReply(std::int32_t result, std::string_view topic, std::int64_t message) {
    return Written([&](nk_message* response) { br_MessageBusSubs_Wait_reply(result, topic, message, response); });
}

template <typename Number>
Number Get(const Bytes& bytes, std::size_t offset) {
    Number value = 0;
    std::memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

TEST(Replies, OfWait_AreTheDispatchsForEveryResultAndEveryLength) {
    for (const std::int32_t result : Results) {
        for (const std::size_t length : {0U, 1U, 7U, 1021U, 1022U, 1023U, 1024U, 5000U}) {
            const std::string topic(length, 't');
            EXPECT_EQ(WaitReply(result, topic, -99), Dispatched(2, 0, result, WaitHandler(topic, -99)))
                << result << ", " << length;
        }
    }
}

TEST(Replies, OfWait_CutTheTopicTo1022CharactersBeforeZeros) {
    for (const std::size_t length : {0U, 1U, 1021U, 1022U, 1023U, 1024U}) {
        std::string topic(length, 't');
        if (length > 0) {
            topic.front() = 'f';
        }
        const Bytes reply = WaitReply(0, topic, 0x0123456789ABCDEF);
        std::string expected = topic.substr(0, 1022);
        expected.resize(1024);
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), reply.begin() + 24)) << length;
        EXPECT_EQ(Get<std::int64_t>(reply, 1048), 0x0123456789ABCDEF) << length;
    }
}

TEST(Replies, OfWait_HaveTheHeaderOfTheirMethod) {
    const Bytes reply = WaitReply(0, "heat", 1);
    EXPECT_EQ(Get<std::uint16_t>(reply, 0), 2);
    EXPECT_EQ(Get<std::uint16_t>(reply, 2), 0);
    EXPECT_EQ(Get<std::uint32_t>(reply, 4), 1056U);
    EXPECT_TRUE(std::all_of(reply.begin() + 8, reply.begin() + 24, [](unsigned char byte) { return byte == 0; }));
}

TEST(Replies, WithAnErrorResult_CarryItsValueAndNothingElseWithinTheirSize) {
    const Bytes reply = WaitReply(br_MessageBus_ErrorResult(7), "", -1);
    EXPECT_EQ(Get<std::uint16_t>(reply, 0), 2);
    EXPECT_EQ(Get<std::uint32_t>(reply, 4), 0x80000020);
    EXPECT_EQ(Get<std::uint64_t>(reply, 24), 7U);
}

TEST(Replies, WithAnotherResult_HaveIndexesAndNoSize) {
    const Bytes reply = WaitReply(-42, "heat", 1);
    EXPECT_EQ(Get<std::uint16_t>(reply, 0), 2);
    EXPECT_EQ(Get<std::uint16_t>(reply, 2), 0);
    EXPECT_EQ(Get<std::uint32_t>(reply, 4), 0U);
}

TEST(Replies, OfEveryMethod_AreTheDispatchs) {
    const auto writesId = [](nk_message* header) {
        const std::int64_t id = -5;
        std::memcpy(reinterpret_cast<unsigned char*>(header) + 24, &id, sizeof(id));
    };
    const auto writesNothing = [](nk_message*) {};
    for (const std::int32_t result : Results) {
        const auto reply = [result](auto function, auto... outputs) {
            return Written([&](nk_message* response) { function(result, outputs..., response); });
        };
        const auto dispatched = [result](std::uint16_t iid, std::uint16_t mid, const Writer& write) {
            return Dispatched(iid, mid, result, write);
        };
        const std::int64_t id = -5;
        EXPECT_EQ(reply(br_MessageBusProvider_Push_reply), dispatched(0, 0, writesNothing));
        EXPECT_EQ(reply(br_MessageBusCtl_RegisterPublisher_reply, id), dispatched(1, 0, writesId));
        EXPECT_EQ(reply(br_MessageBusCtl_StartSubs_reply, id), dispatched(1, 1, writesId));
        EXPECT_EQ(reply(br_MessageBusCtl_Subscribe_reply), dispatched(1, 2, writesNothing));
        EXPECT_EQ(reply(br_MessageBusCtl_FinishSubs_reply, id), dispatched(1, 3, writesId));
        EXPECT_EQ(reply(br_MessageBusCtl_UnregisterPublisher_reply), dispatched(1, 4, writesNothing));
        EXPECT_EQ(reply(br_MessageBusCtl_UnregisterSubscriber_reply), dispatched(1, 5, writesNothing));
    }
}

static_assert(std::is_same_v<decltype(&br_MessageBusSubs_Wait_reply),
                             void (*)(std::int32_t, std::string_view, std::int64_t, nk_message*) noexcept>);

} // namespace
