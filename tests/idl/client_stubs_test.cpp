// Defends the generated client stubs: the bytes that they send, their result for every kind of reply, and that they
// send nothing when a text does not fit.
#include "br_MessageBus_client.h"
#include "kn/status.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace {

using Bytes = std::array<unsigned char, NkRecordSize>;

/// The one channel of these tests: keeps the request and gives the reply that the test set.
struct Channel {
    int calls = 0;
    Bytes sent{};
    Bytes reply{};
    std::int32_t status = 0;
    bool answers = true;
};

Channel channel;

template <typename Value>
void Put(Bytes& bytes, std::size_t offset, Value value) {
    std::memcpy(bytes.data() + offset, &value, sizeof(value));
}

void Put(Bytes& bytes, std::size_t offset, std::string_view text) {
    std::memcpy(bytes.data() + offset, text.data(), text.size());
}

Bytes Record(std::uint16_t iid, std::uint16_t mid, std::uint32_t size) {
    Bytes bytes{};
    Put(bytes, 0, iid);
    Put(bytes, 2, mid);
    Put(bytes, 4, size);
    return bytes;
}

Bytes Request(std::uint16_t iid, std::uint16_t mid) {
    return Record(iid, mid, 1056);
}

Bytes ErrorReply(std::uint16_t iid, std::uint16_t mid, std::uint16_t value) {
    Bytes bytes = Record(iid, mid, 0x80000020);
    Put(bytes, 24, value);
    return bytes;
}

class ClientStubs : public testing::Test {
protected:
    ClientStubs() { channel = {}; }

    std::int32_t PushOne() { return br_MessageBusProvider_Push_call(&transport, 1, 2); }

    NkBosTransport transport{};
    const std::string longest = std::string(1023, 't');
    std::int64_t id = 77;
};

} // namespace

std::int32_t NkBosTransport_Call(NkBosTransport*, const nk_message* request, const nk_arena* requestArena,
                                 nk_message* response, nk_arena* responseArena) noexcept {
    ++channel.calls;
    EXPECT_EQ(requestArena->start, requestArena->end);
    EXPECT_EQ(responseArena->start, responseArena->end);
    std::memcpy(channel.sent.data(), request, channel.sent.size());
    if (channel.status == 0 && channel.answers) {
        std::memcpy(static_cast<void*>(response), channel.reply.data(), channel.reply.size());
    }
    return channel.status;
}

namespace {

TEST_F(ClientStubs, Push_SendsItsFieldsAndZeros) {
    channel.reply = Record(0, 0, 24);
    EXPECT_EQ(br_MessageBusProvider_Push_call(&transport, 0x1122334455667788, -2), 0);
    Bytes expected = Request(0, 0);
    Put(expected, 24, std::int64_t{0x1122334455667788});
    Put(expected, 32, std::int64_t{-2});
    EXPECT_EQ(channel.sent, expected);
}

TEST_F(ClientStubs, RegisterPublisher_SendsTheTopicAndTakesTheId) {
    channel.reply = Record(1, 0, 32);
    Put(channel.reply, 24, std::int64_t{5});
    EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_call(&transport, "weather", id), 0);
    EXPECT_EQ(id, 5);
    Bytes expected = Request(1, 0);
    Put(expected, 24, std::string_view("weather"));
    EXPECT_EQ(channel.sent, expected);
}

TEST_F(ClientStubs, StartSubs_SendsTheNameAndTakesTheId) {
    channel.reply = Record(1, 1, 32);
    Put(channel.reply, 24, std::int64_t{6});
    EXPECT_EQ(br_MessageBusCtl_StartSubs_call(&transport, longest, id), 0);
    EXPECT_EQ(id, 6);
    Bytes expected = Request(1, 1);
    Put(expected, 24, std::string_view(longest));
    EXPECT_EQ(channel.sent, expected);
}

TEST_F(ClientStubs, Subscribe_SendsIdAndTopic) {
    channel.reply = Record(1, 2, 24);
    EXPECT_EQ(br_MessageBusCtl_Subscribe_call(&transport, 9, longest), 0);
    Bytes expected = Request(1, 2);
    Put(expected, 24, std::int64_t{9});
    Put(expected, 32, std::string_view(longest));
    EXPECT_EQ(channel.sent, expected);
}

TEST_F(ClientStubs, FinishSubs_SendsIdAndFlagAndTakesTheId) {
    channel.reply = Record(1, 3, 32);
    Put(channel.reply, 24, std::int64_t{-1});
    EXPECT_EQ(br_MessageBusCtl_FinishSubs_call(&transport, 9, 2, id), 0);
    EXPECT_EQ(id, -1);
    Bytes expected = Request(1, 3);
    Put(expected, 24, std::int64_t{9});
    Put(expected, 32, std::uint8_t{2});
    EXPECT_EQ(channel.sent, expected);
}

TEST_F(ClientStubs, UnregisterPublisher_SendsTheId) {
    channel.reply = Record(1, 4, 24);
    EXPECT_EQ(br_MessageBusCtl_UnregisterPublisher_call(&transport, 9), 0);
    Bytes expected = Request(1, 4);
    Put(expected, 24, std::int64_t{9});
    EXPECT_EQ(channel.sent, expected);
}

TEST_F(ClientStubs, UnregisterSubscriber_SendsTheId) {
    channel.reply = Record(1, 5, 24);
    EXPECT_EQ(br_MessageBusCtl_UnregisterSubscriber_call(&transport, 9), 0);
    Bytes expected = Request(1, 5);
    Put(expected, 24, std::int64_t{9});
    EXPECT_EQ(channel.sent, expected);
}

TEST_F(ClientStubs, Wait_SendsTheIdAndTakesTopicAndMessage) {
    channel.reply = Record(2, 0, 1056);
    Put(channel.reply, 24, std::string_view("weather"));
    Put(channel.reply, 1048, std::int64_t{-3});
    std::string topic;
    std::int64_t message = 0;
    EXPECT_EQ(br_MessageBusSubs_Wait_call(&transport, 9, topic, message), 0);
    EXPECT_EQ(topic, "weather");
    EXPECT_EQ(message, -3);
    Bytes expected = Request(2, 0);
    Put(expected, 24, std::int64_t{9});
    EXPECT_EQ(channel.sent, expected);
}

TEST_F(ClientStubs, Wait_TakesATopicWithoutTerminatorToTheEndOfItsArray) {
    channel.reply = Record(2, 0, 1056);
    Put(channel.reply, 24, std::string_view(std::string(1024, 'x')));
    Put(channel.reply, 1048, std::int64_t{0x7979797979797979});
    std::string topic;
    std::int64_t message = 0;
    EXPECT_EQ(br_MessageBusSubs_Wait_call(&transport, 9, topic, message), 0);
    EXPECT_EQ(topic, std::string(1024, 'x'));
}

TEST_F(ClientStubs, TextThatFillsItsArray_IsRefusedUnsent) {
    const std::string tooLong(1024, 't');
    EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_call(&transport, tooLong, id), KnStatusInvalidArgument);
    EXPECT_EQ(br_MessageBusCtl_StartSubs_call(&transport, tooLong, id), KnStatusInvalidArgument);
    EXPECT_EQ(br_MessageBusCtl_Subscribe_call(&transport, 9, tooLong), KnStatusInvalidArgument);
    EXPECT_EQ(channel.calls, 0);
    EXPECT_EQ(id, 77);
}

TEST_F(ClientStubs, TextWithANul_IsRefusedUnsent) {
    EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_call(&transport, std::string_view("a\0b", 3), id),
              KnStatusInvalidArgument);
    EXPECT_EQ(br_MessageBusCtl_Subscribe_call(&transport, 9, std::string_view("\0", 1)), KnStatusInvalidArgument);
    EXPECT_EQ(channel.calls, 0);
}

TEST_F(ClientStubs, EmptyText_IsSent) {
    channel.reply = Record(1, 0, 32);
    EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_call(&transport, {}, id), 0);
    EXPECT_EQ(channel.sent, Request(1, 0));
}

TEST_F(ClientStubs, PlatformStatus_IsPassedOnAndOutputsAreLeftAlone) {
    for (const std::int32_t status : {KnStatusClosed, KnStatusAbandoned, KnStatusBadRecord, KnStatusDenied}) {
        channel.status = status;
        EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_call(&transport, "weather", id), status);
        EXPECT_EQ(PushOne(), status);
    }
    EXPECT_EQ(id, 77);
}

TEST_F(ClientStubs, ErrorReply_GivesTheHandlersResult) {
    constexpr std::int32_t results[] = {-16384,  -49152,  -81920,  -114688, -147456, -180224,
                                        -212992, -245760, -278528, -311296, -344064};
    for (std::uint16_t code = 0; code <= 10; ++code) {
        channel.reply = ErrorReply(1, 0, code);
        EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_call(&transport, "weather", id), results[code]);
    }
    channel.reply = ErrorReply(0, 0, 0xFFFF);
    EXPECT_EQ(PushOne(), -2147467264);
    EXPECT_EQ(id, 77);
}

TEST_F(ClientStubs, ReplyNeverWritten_IsABadReply) {
    channel.reply = Record(0, 0, 24);
    EXPECT_EQ(PushOne(), 0); // leaves a good reply on the stack, where the next call puts its own
    channel.answers = false;
    EXPECT_EQ(PushOne(), KnStatusBadReply);
    EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_call(&transport, "weather", id), KnStatusBadReply);
    EXPECT_EQ(id, 77);
}

TEST_F(ClientStubs, ReplyThatTheMethodMayNotGive_IsABadReply) {
    const Bytes replies[] = {
        Bytes{},                  // what an unknown interface leaves behind
        Record(0, 0, 0),          // what a failed dispatch leaves behind
        Record(1, 0, 24),         // another interface
        Record(0, 1, 24),         // another method
        Record(0, 0, 23),         // shorter
        Record(0, 0, 25),         // longer
        Record(0, 0, 0x80000000), // an error without a value
        Record(0, 0, 0x80000000 | 24),
        ErrorReply(1, 0, 8), // the error of another interface
        ErrorReply(0, 1, 8),
    };
    for (const Bytes& reply : replies) {
        channel.reply = reply;
        EXPECT_EQ(PushOne(), KnStatusBadReply) << &reply - replies;
    }
}

TEST_F(ClientStubs, Bits23To30OfTheSizeWord_DoNotMatter) {
    channel.reply = Record(0, 0, 0x7F800000 | 24);
    EXPECT_EQ(PushOne(), 0);
    channel.reply = ErrorReply(0, 0, 8);
    Put(channel.reply, 4, std::uint32_t{0xFF800020});
    EXPECT_EQ(PushOne(), -278528);
}

} // namespace
