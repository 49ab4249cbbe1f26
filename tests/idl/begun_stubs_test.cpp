// Defends the generated stubs of begun calls: they send the bytes of the stubs that call at once and judge a reply as
// those do, pass time-outs on, and send nothing when a text does not fit.
#include "br_MessageBus_begun.h"
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
struct BegunChannel {
    int begun = 0;
    Bytes sent{};
    std::uint32_t beginTimeoutMs = 0;
    std::int32_t beginStatus = 0;
    Bytes reply{};
    std::uint32_t finishTimeoutMs = 0;
    std::int32_t finishStatus = 0;
    bool answers = true;
};

BegunChannel channel;

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
    return Record(iid, mid, NkRecordSize);
}

Bytes ErrorReply(std::uint16_t iid, std::uint16_t mid, std::uint16_t value) {
    Bytes bytes = Record(iid, mid, 0x80000020);
    Put(bytes, 24, value);
    return bytes;
}

class BegunStubs : public testing::Test {
protected:
    BegunStubs() { channel = {}; }

    std::int32_t FinishPush() { return br_MessageBusProvider_Push_finish(&transport, 3); }
    std::int32_t FinishRegistration() { return br_MessageBusCtl_RegisterPublisher_finish(&transport, id, 3); }

    NkBosTransport transport{};
    const std::string longest = std::string(1023, 't');
    std::int64_t id = 77;
};

} // namespace

std::int32_t NkBeginCall(NkBosTransport*, const nk_message* request, std::uint32_t timeoutMs) noexcept {
    ++channel.begun;
    channel.beginTimeoutMs = timeoutMs;
    std::memcpy(channel.sent.data(), request, channel.sent.size());
    return channel.beginStatus;
}

std::int32_t NkFinishCall(NkBosTransport*, nk_message* response, std::uint32_t timeoutMs) noexcept {
    channel.finishTimeoutMs = timeoutMs;
    if (channel.finishStatus == 0 && channel.answers) {
        std::memcpy(static_cast<void*>(response), channel.reply.data(), channel.reply.size());
    }
    return channel.finishStatus;
}

namespace {

TEST_F(BegunStubs, Push_SendsItsFieldsAndZeros) {
    EXPECT_EQ(br_MessageBusProvider_Push_begin(&transport, 0x1122334455667788, -2, 5), 0);
    Bytes expected = Request(0, 0);
    Put(expected, 24, std::int64_t{0x1122334455667788});
    Put(expected, 32, std::int64_t{-2});
    EXPECT_EQ(channel.sent, expected);
    channel.reply = Record(0, 0, 24);
    EXPECT_EQ(FinishPush(), 0);
}

TEST_F(BegunStubs, RegisterPublisher_SendsTheTopicAndTakesTheId) {
    EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_begin(&transport, "weather", 5), 0);
    Bytes expected = Request(1, 0);
    Put(expected, 24, std::string_view("weather"));
    EXPECT_EQ(channel.sent, expected);
    channel.reply = Record(1, 0, 32);
    Put(channel.reply, 24, std::int64_t{5});
    EXPECT_EQ(FinishRegistration(), 0);
    EXPECT_EQ(id, 5);
}

TEST_F(BegunStubs, StartSubs_SendsTheNameAndTakesTheId) {
    EXPECT_EQ(br_MessageBusCtl_StartSubs_begin(&transport, longest, 5), 0);
    Bytes expected = Request(1, 1);
    Put(expected, 24, std::string_view(longest));
    EXPECT_EQ(channel.sent, expected);
    channel.reply = Record(1, 1, 32);
    Put(channel.reply, 24, std::int64_t{6});
    EXPECT_EQ(br_MessageBusCtl_StartSubs_finish(&transport, id, 5), 0);
    EXPECT_EQ(id, 6);
}

TEST_F(BegunStubs, Subscribe_SendsIdAndTopic) {
    EXPECT_EQ(br_MessageBusCtl_Subscribe_begin(&transport, 9, longest, 5), 0);
    Bytes expected = Request(1, 2);
    Put(expected, 24, std::int64_t{9});
    Put(expected, 32, std::string_view(longest));
    EXPECT_EQ(channel.sent, expected);
    channel.reply = Record(1, 2, 24);
    EXPECT_EQ(br_MessageBusCtl_Subscribe_finish(&transport, 5), 0);
}

TEST_F(BegunStubs, FinishSubs_SendsIdAndFlagAndTakesTheId) {
    EXPECT_EQ(br_MessageBusCtl_FinishSubs_begin(&transport, 9, 2, 5), 0);
    Bytes expected = Request(1, 3);
    Put(expected, 24, std::int64_t{9});
    Put(expected, 32, std::uint8_t{2});
    EXPECT_EQ(channel.sent, expected);
    channel.reply = Record(1, 3, 32);
    Put(channel.reply, 24, std::int64_t{-1});
    EXPECT_EQ(br_MessageBusCtl_FinishSubs_finish(&transport, id, 5), 0);
    EXPECT_EQ(id, -1);
}

TEST_F(BegunStubs, Unregistrations_SendTheId) {
    EXPECT_EQ(br_MessageBusCtl_UnregisterPublisher_begin(&transport, 9, 5), 0);
    Bytes expected = Request(1, 4);
    Put(expected, 24, std::int64_t{9});
    EXPECT_EQ(channel.sent, expected);
    channel.reply = Record(1, 4, 24);
    EXPECT_EQ(br_MessageBusCtl_UnregisterPublisher_finish(&transport, 5), 0);

    EXPECT_EQ(br_MessageBusCtl_UnregisterSubscriber_begin(&transport, 9, 5), 0);
    expected = Request(1, 5);
    Put(expected, 24, std::int64_t{9});
    EXPECT_EQ(channel.sent, expected);
    channel.reply = Record(1, 5, 24);
    EXPECT_EQ(br_MessageBusCtl_UnregisterSubscriber_finish(&transport, 5), 0);
}

TEST_F(BegunStubs, Wait_SendsTheIdAndTakesTopicAndMessage) {
    EXPECT_EQ(br_MessageBusSubs_Wait_begin(&transport, 9, 5), 0);
    Bytes expected = Request(2, 0);
    Put(expected, 24, std::int64_t{9});
    EXPECT_EQ(channel.sent, expected);
    channel.reply = Record(2, 0, 1056);
    Put(channel.reply, 24, std::string_view("weather"));
    Put(channel.reply, 1048, std::int64_t{-3});
    std::string topic;
    std::int64_t message = 0;
    EXPECT_EQ(br_MessageBusSubs_Wait_finish(&transport, topic, message, 5), 0);
    EXPECT_EQ(topic, "weather");
    EXPECT_EQ(message, -3);
}

TEST_F(BegunStubs, Wait_TakesATopicWithoutTerminatorToTheEndOfItsArray) {
    channel.reply = Record(2, 0, 1056);
    Put(channel.reply, 24, std::string_view(std::string(1024, 'x')));
    Put(channel.reply, 1048, std::int64_t{0x7979797979797979});
    std::string topic;
    std::int64_t message = 0;
    EXPECT_EQ(br_MessageBusSubs_Wait_finish(&transport, topic, message, 5), 0);
    EXPECT_EQ(topic, std::string(1024, 'x'));
}

TEST_F(BegunStubs, TimeOuts_ArePassedOn) {
    for (const std::uint32_t timeoutMs : {std::uint32_t{0}, std::uint32_t{250}, NkForever}) {
        EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_begin(&transport, "weather", timeoutMs), 0);
        EXPECT_EQ(channel.beginTimeoutMs, timeoutMs);
        static_cast<void>(br_MessageBusCtl_RegisterPublisher_finish(&transport, id, timeoutMs));
        EXPECT_EQ(channel.finishTimeoutMs, timeoutMs);
        static_cast<void>(br_MessageBusProvider_Push_finish(&transport, timeoutMs));
        EXPECT_EQ(channel.finishTimeoutMs, timeoutMs);
    }
}

TEST_F(BegunStubs, TextThatDoesNotFit_IsRefusedUnsent) {
    const std::string tooLong(1024, 't');
    EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_begin(&transport, tooLong, 5), KnStatusInvalidArgument);
    EXPECT_EQ(br_MessageBusCtl_Subscribe_begin(&transport, 9, std::string_view("a\0b", 3), 5), KnStatusInvalidArgument);
    EXPECT_EQ(channel.begun, 0);
}

TEST_F(BegunStubs, PlatformStatus_IsPassedOnAndOutputsAreLeftAlone) {
    channel.reply = Record(1, 0, 32);
    for (const std::int32_t status : {KnStatusTimedOut, KnStatusClosed, KnStatusAbandoned, KnStatusInvalidArgument}) {
        channel.beginStatus = status;
        EXPECT_EQ(br_MessageBusCtl_RegisterPublisher_begin(&transport, "weather", 5), status);
        channel.finishStatus = status;
        EXPECT_EQ(FinishRegistration(), status);
        EXPECT_EQ(FinishPush(), status);
    }
    EXPECT_EQ(id, 77);
}

TEST_F(BegunStubs, ErrorReply_GivesTheHandlersResult) {
    channel.reply = ErrorReply(1, 0, 8);
    EXPECT_EQ(FinishRegistration(), -278528);
    channel.reply = ErrorReply(0, 0, 0xFFFF);
    EXPECT_EQ(FinishPush(), -2147467264);
    EXPECT_EQ(id, 77);
}

TEST_F(BegunStubs, ReplyNeverWritten_IsABadReply) {
    channel.reply = Record(0, 0, 24);
    EXPECT_EQ(FinishPush(), 0); // leaves a good reply on the stack, where the next call puts its own
    channel.answers = false;
    EXPECT_EQ(FinishPush(), KnStatusBadReply);
    EXPECT_EQ(FinishRegistration(), KnStatusBadReply);
    EXPECT_EQ(id, 77);
}

TEST_F(BegunStubs, ReplyThatTheMethodMayNotGive_IsABadReply) {
    const Bytes replies[] = {
        Bytes{},                  // what an unknown interface leaves behind
        Record(1, 0, 0),          // what a failed dispatch leaves behind
        Record(2, 0, 32),         // another interface
        Record(1, 1, 32),         // another method
        Record(1, 0, 31),         // shorter
        Record(1, 0, 33),         // longer
        Record(1, 0, 0x80000000), // an error without a value
        Record(1, 0, 0x80000000 | 24),
        ErrorReply(0, 0, 8), // the error of another interface
        ErrorReply(1, 1, 8),
    };
    for (const Bytes& reply : replies) {
        channel.reply = reply;
        EXPECT_EQ(FinishRegistration(), KnStatusBadReply) << &reply - replies;
    }
    EXPECT_EQ(id, 77);
}

TEST_F(BegunStubs, Bits23To30OfTheSizeWord_DoNotMatter) {
    channel.reply = Record(0, 0, 0x7F800000 | 24);
    EXPECT_EQ(FinishPush(), 0);
    channel.reply = ErrorReply(0, 0, 8);
    Put(channel.reply, 4, std::uint32_t{0xFF800020});
    EXPECT_EQ(FinishPush(), -278528);
}

} // namespace
