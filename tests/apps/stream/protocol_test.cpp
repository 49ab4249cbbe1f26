// Defends the texts and frames that clients of msgbus stream get, byte by byte, and that no text of theirs is taken for
// a request that is none.
#include "stream/wire/protocol.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <limits>
#include <string>

namespace {

using namespace stream;
using nlohmann::json;

TEST(StreamProtocolTest, Value_HasTheBytesOfTheProtocol) {
    std::string bytes = "x";
    AppendValue(bytes, 0x04030201, 0x1817161514131211, -2);

    EXPECT_EQ(bytes,
              std::string("x\x01\x01\x02\x03\x04\x11\x12\x13\x14\x15\x16\x17\x18\x00\x01\x00\x00\xfe\xff\xff\xff\xff"
                          "\xff\xff\xff",
                          1 + ValueSize));
}

TEST(StreamProtocolTest, Advertise_HasTheSchemasOfRecordings) {
    const auto text = json::parse(Advertise({{1, "a/b", false}, {2, "c\"", true}}));

    EXPECT_EQ(text, json::parse(R"({"op": "advertise", "channels": [
        {"id": 1, "topic": "a/b", "encoding": "cdr", "schemaName": "std_msgs/msg/Int64", "schema": "int64 data",
         "schemaEncoding": "ros2msg"},
        {"id": 2, "topic": "c\"", "encoding": "cdr", "schemaName": "std_msgs/msg/Float64", "schema": "float64 data",
         "schemaEncoding": "ros2msg"}]})"));
}

TEST(StreamProtocolTest, OtherTexts_HaveTheFieldsOfTheProtocol) {
    EXPECT_EQ(json::parse(ServerInfo("n", "s")),
              json::parse(R"({"op": "serverInfo", "name": "n", "capabilities": [], "sessionId": "s"})"));
    EXPECT_EQ(json::parse(Unadvertise({7, 8})), json::parse(R"({"op": "unadvertise", "channelIds": [7, 8]})"));
    EXPECT_EQ(json::parse(Status(Level::Error, "why")),
              json::parse(R"({"op": "status", "level": 2, "message": "why"})"));
}

TEST(StreamProtocolTest, BytesThatAreNoUtf8_AreJsonAllTheSame) {
    EXPECT_EQ(json::parse(Status(Level::Info, "a\xff")).at("message"), "a\xEF\xBF\xBD");
}

TEST(StreamProtocolTest, Requests_AreParsed) {
    const auto subscribe = std::get<Subscribe>(ParseRequest(
        R"({"op": "subscribe", "more": 1, "subscriptions": [{"id": 0, "channelId": 4294967295}, {"id": 2, "channelId": 3}]})"));
    ASSERT_EQ(subscribe.wishes.size(), 2U);
    EXPECT_EQ(subscribe.wishes[0].id, 0U);
    EXPECT_EQ(subscribe.wishes[0].channel, std::numeric_limits<std::uint32_t>::max());
    EXPECT_EQ(subscribe.wishes[1].id, 2U);
    EXPECT_EQ(subscribe.wishes[1].channel, 3U);
    const auto unsubscribe = std::get<Unsubscribe>(ParseRequest(R"({"op": "unsubscribe", "subscriptionIds": [1, 2]})"));
    EXPECT_EQ(unsubscribe.ids, (std::vector<std::uint32_t>{1, 2}));
    EXPECT_EQ(std::get<OtherRequest>(ParseRequest(R"({"op": "get\n"})")).operation, "get\\n");
}

TEST(StreamProtocolTest, WhatIsNoRequest_IsRejected) {
    for (const auto* const text : {
             "",
             "{",
             "[]",
             "1",
             "{}",
             R"({"op": 1})",
             R"({"op": "subscribe"})",
             R"({"op": "subscribe", "subscriptions": {}})",
             R"({"op": "subscribe", "subscriptions": [1]})",
             R"({"op": "subscribe", "subscriptions": [{"id": 1}]})",
             R"({"op": "subscribe", "subscriptions": [{"id": -1, "channelId": 1}]})",
             R"({"op": "subscribe", "subscriptions": [{"id": 4294967296, "channelId": 1}]})",
             R"({"op": "subscribe", "subscriptions": [{"id": 1.0, "channelId": 1}]})",
             R"({"op": "unsubscribe", "subscriptionIds": ["1"]})",
             R"({"op": "unsubscribe", "subscriptionIds": [[1]]})",
             R"({"op": "unsubscribe", "subscriptionIds": [{"id": 1}]})",
             R"({"op": "subscribe", "subscriptions": [[]]})",
             "{\"op\": \"\xff\"}",
         }) {
        EXPECT_THROW(ParseRequest(text), BadRequestError) << text;
    }
}

std::string Nested(const std::string& key, std::size_t levels) {
    return R"({"op": "unsubscribe", ")" + key + R"(": )" + std::string(levels, '[') + std::string(levels, ']') + '}';
}

std::string ProblemOf(const std::string& text) {
    try {
        ParseRequest(text);
    } catch (const BadRequestError& error) {
        return error.what();
    }
    return {};
}

TEST(StreamProtocolTest, ADeepRequest_IsRejectedForItsDepth) {
    for (const std::size_t levels : {64U, 32700U}) { // the object is a level too
        EXPECT_EQ(ProblemOf(Nested("subscriptionIds", levels)), "a request has at most 64 levels") << levels;
    }
    EXPECT_EQ(ProblemOf(Nested("subscriptionIds", 63)), "each subscription needs 'id', a number of 32 bits");
    EXPECT_EQ(std::get<OtherRequest>(ParseRequest(R"({"op": "other", "more": [[[[[[[[1]]]]]]]]})")).operation, "other");
}

} // namespace
