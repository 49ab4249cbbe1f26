// How traced values are shown, as text and for a trace viewer.

#include "trace/trace.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using instruments::TraceRecord;

constexpr std::int64_t Pushed = 1'790'000'000'000'001'000;

TraceRecord Sample() {
    TraceRecord record;
    record.topic = "t";
    record.wanted = 1;
    record.values.push_back({-5, 3, Pushed, 3, Pushed + 3000, {}});
    auto& copies = record.values[0].copies;
    copies.push_back({7, 0, Pushed + 1000, 0, Pushed + 5000, 0, false});
    copies.push_back({8, 0, Pushed + 2000, Pushed + 4000, Pushed + 9000, 0, false});
    copies.push_back({9, 0, Pushed + 3000, 0, 0, Pushed + 8000, false});
    copies.push_back({10, 0, Pushed + 3000, 0, 0, 0, true});
    return record;
}

TEST(TraceText, EachCopyIsALine) {
    EXPECT_EQ(
        trace::ToText(Sample(), {{7, "display\n"}}),
        "2026-09-21T14:13:20.000001Z  -5  pushed by 3, fanned out +3us to 3\n"
        "    queued     +1us  offered        -  taken     +5us  subscriber 7 (display\\n)\n"
        "    queued     +2us  offered     +4us  taken     +9us  subscriber 8\n"
        "    queued     +3us  offered        -  taken        -  subscriber 9: dropped +8us\n"
        "    queued     +3us  offered        -  taken        -  subscriber 10: not known, since newer values were "
        "dropped\n");
}

TEST(TraceText, TraceEvents_AreSlicesFromStepToStep) {
    const auto json = nlohmann::json::parse(trace::ToTraceEvents(Sample(), {{7, "display"}}));
    std::vector<std::string> slices;
    std::vector<std::string> names;
    for (const auto& event : json["traceEvents"]) {
        if (event["ph"] == "X") {
            slices.push_back(event["name"].get<std::string>() + ' ' + event["tid"].dump() + ' ' + event["ts"].dump() +
                             ' ' + event["dur"].dump());
            EXPECT_EQ(event["args"]["value"], "-5");
        } else {
            EXPECT_EQ(event["ph"], "M");
            names.push_back(event["args"]["name"]);
        }
    }
    EXPECT_EQ(slices, (std::vector<std::string>{"inbound 0 0.0 3.0", "queued 7 1.0 4.0", "queued 8 2.0 2.0",
                                                "offered 8 4.0 5.0", "queued, then dropped 9 3.0 5.0"}));
    EXPECT_EQ(names, (std::vector<std::string>{"message bus, topic t", "inbound queue", "subscriber 7 (display)",
                                               "subscriber 8", "subscriber 9", "subscriber 10"}));
}

TEST(TraceText, OfNothing_ThereIsNothing) {
    EXPECT_EQ(trace::ToText({}, {}), "");
    EXPECT_EQ(nlohmann::json::parse(trace::ToTraceEvents({}, {}))["traceEvents"].size(), 2U);
}

} // namespace
