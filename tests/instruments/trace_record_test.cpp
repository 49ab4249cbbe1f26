// The record of a trace as JSON, and back.

#include "instruments/trace_record.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <limits>
#include <stdexcept>

namespace {

using instruments::TraceFromJson;
using instruments::TraceRecord;
using instruments::TraceToJson;

TraceRecord Sample() {
    TraceRecord record;
    record.topic = "a\n";
    record.wanted = 2;
    record.lostSteps = 3;
    record.values.push_back({std::numeric_limits<std::int64_t>::min(), 5, 100, 2, 200, {}});
    record.values[0].copies.push_back({7, 1, 110, 0, 130, 0, false});
    record.values[0].copies.push_back({8, 1, 111, 121, 0, 0, true});
    return record;
}

TEST(TraceRecordTest, Json_HasTimesSince1970AndNullForWhatHasNotHappened) {
    constexpr std::int64_t offset = 1000;
    EXPECT_EQ(
        TraceToJson(Sample(), offset).dump(),
        R"({"version":1,"topic":"a\\n","wanted":2,"lost_steps":3,"values":[{"value":-9223372036854775808,)"
        R"("value_text":"-9223372036854775808","publisher":5,"pushed_unix_ns":1100,"subscribers":2,)"
        R"("fanned_out_unix_ns":1200,"copies":[)"
        R"({"subscriber":7,"queued_unix_ns":1110,"offered_unix_ns":null,"taken_unix_ns":1130,"dropped_unix_ns":null,"uncertain":false},)"
        R"({"subscriber":8,"queued_unix_ns":1111,"offered_unix_ns":1121,"taken_unix_ns":null,"dropped_unix_ns":null,"uncertain":true}]}]})");
}

TEST(TraceRecordTest, WhatIsReadBack_IsTheSame) {
    const auto record = TraceFromJson(TraceToJson(Sample(), 0).dump());
    EXPECT_EQ(record.topic, "a\\n");
    EXPECT_EQ(TraceToJson(record, 0)["values"], TraceToJson(Sample(), 0)["values"]);
    EXPECT_EQ(record.lostSteps, 3U);
    EXPECT_FALSE(record.HasEnded());
    EXPECT_TRUE(record.values[0].HasEnded());
}

TEST(TraceRecordTest, WhatIsNoTrace_CannotBeRead) {
    for (const char* text : {"", "{}", "[]", "nonsense", R"({"topic":1,"wanted":"x","lost_steps":0,"values":[]})"}) {
        EXPECT_THROW(TraceFromJson(text), std::runtime_error) << text;
    }
}

} // namespace
