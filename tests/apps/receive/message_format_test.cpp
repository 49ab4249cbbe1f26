// How received messages are printed: each style with each kind of time, and the formats of users.

#include "receive/message_format.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

namespace {

using receive::MakeFormat;
using receive::Receipt;
using receive::Received;
using receive::Style;
using receive::TimeStyle;
using std::chrono::microseconds;

Receipt After(microseconds time) {
    constexpr microseconds start{1'790'000'000'000'001}; // 2026-09-21T13:33:20.000001Z
    return {std::chrono::system_clock::time_point(start + time), std::chrono::steady_clock::time_point(time)};
}

Received Message(const std::string& topic, std::int64_t value, microseconds time = microseconds(1'500'000),
                 std::uint64_t sequence = 1) {
    return {{topic, value}, sequence, After(time)};
}

std::string Line(Style style, std::optional<TimeStyle> time, const Received& received) {
    return MakeFormat(style, time, "me", After(microseconds(0)))->Line(received);
}

std::string Pattern(const std::string& pattern, const Received& received) {
    return MakeFormat(pattern, After(microseconds(0)))->Line(received);
}

TEST(MessageFormat, ALine_HasTheTopicEscapedAndTheValue) {
    EXPECT_EQ(Line(Style::Lines, std::nullopt, Message("a b\n\x1b\\", -5)), "a b\\n\\x1b\\\\ -5\n");
}

TEST(MessageFormat, ALineWithTime_BeginsWithIt) {
    const auto message = Message("t", 1);
    EXPECT_EQ(Line(Style::Lines, TimeStyle::Rfc3339, message), "2026-09-21T14:13:21.500001Z t 1\n");
    EXPECT_EQ(Line(Style::Lines, TimeStyle::Unix, message), "1790000001.500001 t 1\n");
    EXPECT_EQ(Line(Style::Lines, TimeStyle::Relative, message), "1.500000 t 1\n");
    EXPECT_EQ(Line(Style::Lines, TimeStyle::Delta, message), "1.500000 t 1\n");
}

TEST(MessageFormat, Delta_CountsFromTheMessageBefore) {
    for (const auto style : {Style::Lines, Style::Csv}) {
        const auto format = MakeFormat(style, TimeStyle::Delta, "me", After(microseconds(0)));
        EXPECT_TRUE(format->Line(Message("t", 1, microseconds(2'000'000))).starts_with("2.000000"));
        EXPECT_TRUE(format->Line(Message("t", 2, microseconds(2'000'003))).starts_with("0.000003"));
    }
}

TEST(MessageFormat, Json_HasTimeAndSequenceNumber) {
    EXPECT_EQ(Line(Style::Json, std::nullopt, Message("t", 1, microseconds(0), 7)),
              R"({"topic":"t","value":1,"subscriber":"me","time":"2026-09-21T14:13:20.000001Z","seq":7})"
              "\n");
    EXPECT_EQ(Line(Style::Json, TimeStyle::Relative, Message("t", 1)),
              R"({"topic":"t","value":1,"subscriber":"me","time":1.5,"seq":1})"
              "\n");
    EXPECT_EQ(Line(Style::Json, TimeStyle::Unix, Message("t", 1)),
              R"({"topic":"t","value":1,"subscriber":"me","time":1790000001.500001,"seq":1})"
              "\n");
}

TEST(MessageFormat, JsonStrings_KeepsEveryDigitForProgramsThatRound) {
    EXPECT_NE(Line(Style::JsonStrings, std::nullopt, Message("t", std::numeric_limits<std::int64_t>::min()))
                  .find(R"("value":"-9223372036854775808")"),
              std::string::npos);
}

TEST(MessageFormat, JsonOfATopicThatIsNotUtf8_HasItsBytes) {
    const auto line = Line(Style::Json, std::nullopt, Message("a\xff", 1));
    EXPECT_NE(line.find("\"topic\":\"a\xEF\xBF\xBD\",\"topic_hex\":\"61ff\","), std::string::npos) << line;
}

TEST(MessageFormat, Csv_QuotesWhatHasToBeQuoted) {
    const auto format = MakeFormat(Style::Csv, TimeStyle::Relative, "me", After(microseconds(0)));
    EXPECT_EQ(format->Header(), "time,seq,topic,value\n");
    EXPECT_EQ(format->Line(Message("t", 1)), "1.500000,1,t,1\n");
    EXPECT_EQ(format->Line(Message("a,\"b\"", 1)), "1.500000,1,\"a,\"\"b\"\"\",1\n");
    EXPECT_EQ(format->Line(Message("a\nb", 1)), "1.500000,1,\"a\nb\",1\n");
    EXPECT_EQ(format->Line(Message("a\xff", 1)), "1.500000,1,a\xff,1\n");
}

TEST(MessageFormat, EachFieldOfAPattern_IsFilledIn) {
    const auto message = Message("a\nb", -1, microseconds(1'500'000), 42);
    EXPECT_EQ(Pattern("%t", message), "a\\nb\n");
    EXPECT_EQ(Pattern("%T", message), "a\nb\n");
    EXPECT_EQ(Pattern("%v", message), "-1\n");
    EXPECT_EQ(Pattern("%x", message), "ffffffffffffffff\n");
    EXPECT_EQ(Pattern("%n", message), "42\n");
    EXPECT_EQ(Pattern("%i", message), "2026-09-21T14:13:21.500001Z\n");
    EXPECT_EQ(Pattern("%u", message), "1790000001.500001\n");
    EXPECT_EQ(Pattern("%r", message), "1.500000\n");
    EXPECT_EQ(Pattern("%d", message), "1.500000\n");
    EXPECT_EQ(Pattern("%%[%v]\\t\\\\\\n", message), "%[-1]\t\\\n\n");
    EXPECT_EQ(Pattern("\\0", message), std::string("\0\n", 2));
    EXPECT_EQ(Pattern("", message), "\n");
}

TEST(MessageFormat, APatternThatCannotBeFilled_IsRefused) {
    for (const char* pattern : {"%q", "%", "\\", "\\x", "50%"}) {
        EXPECT_THROW(Pattern(pattern, Message("t", 1)), std::invalid_argument) << pattern;
    }
}

TEST(MessageFormat, TimesBefore1970_AreRoundedDown) {
    EXPECT_EQ(receive::Rfc3339(std::chrono::system_clock::time_point(microseconds(-1))), "1969-12-31T23:59:59.999999Z");
    EXPECT_EQ(Pattern("%u", {{"t", 1}, 1, {std::chrono::system_clock::time_point(microseconds(-1)), {}}}),
              "-0.000001\n");
}

TEST(MessageFormat, StylesOfTime_AreParsed) {
    EXPECT_EQ(receive::ParseTimeStyle(""), TimeStyle::Rfc3339);
    EXPECT_EQ(receive::ParseTimeStyle("rel"), TimeStyle::Relative);
    EXPECT_EQ(receive::ParseTimeStyle("delta"), TimeStyle::Delta);
    EXPECT_EQ(receive::ParseTimeStyle("unix"), TimeStyle::Unix);
    EXPECT_THROW(receive::ParseTimeStyle("iso"), std::invalid_argument);
}

} // namespace
