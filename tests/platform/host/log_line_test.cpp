// Defends the formats of log lines: each says the same of a record, and no byte of a record can break a line.
#include "base/log_line.h"

#include "common/log_origin.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <regex>
#include <string>

namespace borven_host {
namespace {

using bos::logger::LogFormat;
using bos::logger::LogLevel;
using namespace std::literals;
using testing::EndsWith;
using testing::StartsWith;

const std::string Thread = std::to_string(::gettid());

LogLimit::Record RecordWith(std::string_view text, LogLevel level = LogLevel::Info) {
    return {level, "file.cpp", 12, "Function", text};
}

TEST(LogLine, Text_HasTimeLevelThreadAndPlace) {
    const std::regex wanted(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z INFO  \[)" + Thread +
                            R"(\] file\.cpp:12 Function: text)");
    const std::string line = LineOf(RecordWith("text"), LogFormat::Text);
    EXPECT_TRUE(std::regex_match(line, wanted)) << line;
}

TEST(LogLine, Journal_HasAPriorityAndNoTime) {
    const auto lineAt = [](LogLevel level) { return LineOf(RecordWith("text", level), LogFormat::Journal); };
    const std::string rest = "[" + Thread + "] file.cpp:12 Function: text";
    EXPECT_EQ(lineAt(LogLevel::Debug), "<7>" + rest);
    EXPECT_EQ(lineAt(LogLevel::Info), "<6>" + rest);
    EXPECT_EQ(lineAt(LogLevel::Warning), "<4>" + rest);
    EXPECT_EQ(lineAt(LogLevel::Error), "<3>" + rest);
}

TEST(LogLine, Journal_IsNotLongerThanTheJournalTakes) {
    std::string text;
    while (text.size() <= LongestJournalLine) {
        text += "\xf0\x9f\x98\x80"; // four bytes
    }
    const std::string line = LineOf(RecordWith(text), LogFormat::Journal);
    EXPECT_LE(line.size(), LongestJournalLine);
    EXPECT_GT(line.size(), LongestJournalLine - 8);
    EXPECT_THAT(line, EndsWith("\xf0\x9f\x98\x80..."));
    EXPECT_GT(LineOf(RecordWith(text), LogFormat::Text).size(), text.size()) << "others are whole";
}

TEST(LogLine, Json_IsAnObjectWithEveryPart) {
    const std::string line = LineOf(RecordWith("text", LogLevel::Warning), LogFormat::Json);
    auto object = nlohmann::json::parse(line);
    const std::string time = object["time"];
    EXPECT_TRUE(std::regex_match(time, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)"))) << time;
    object.erase("time");
    EXPECT_EQ(object, (nlohmann::json{{"level", "warning"},
                                      {"origin", "server"},
                                      {"thread", ::gettid()},
                                      {"file", "file.cpp"},
                                      {"line", 12},
                                      {"function", "Function"},
                                      {"message", "text"}}));
}

TEST(LogLine, Json_NamesTheOriginAndThePlaceInTheTree) {
    const std::string path = std::string(common::log_origin_detail::Root) + "messagebus/src/messagebus.cpp";
    const auto object = nlohmann::json::parse(LineOf({LogLevel::Info, path, 1, "F", "text"}, LogFormat::Json));
    EXPECT_EQ(object["origin"], "bus");
    EXPECT_EQ(object["file"], "messagebus/src/messagebus.cpp");
}

TEST(LogLine, AnyByte_BreaksNoFormat) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    const std::string hostile = all + "\"},{\"level\":\"error\" <0> \xe2\x80\xa8 \xc3";
    for (const auto format : {LogFormat::Text, LogFormat::Journal, LogFormat::Json}) {
        const std::string line = LineOf(RecordWith(hostile), format);
        for (const char c : line) {
            const auto byte = static_cast<unsigned char>(c);
            EXPECT_TRUE(byte >= 0x20 && byte < 0x7F)
                << static_cast<int>(byte); // nothing of the above is printable beyond
        }
    }
    const auto object = nlohmann::json::parse(LineOf(RecordWith(hostile), LogFormat::Json));
    EXPECT_EQ(object.size(), 8U);
    EXPECT_THAT(std::string(object["message"]), StartsWith("\\x00\\x01"));
    EXPECT_THAT(std::string(object["message"]), EndsWith("\"},{\"level\":\"error\" <0> \\xe2\\x80\\xa8 \\xc3"));
}

TEST(LogLine, Dropped_IsALineOfEachFormat) {
    const std::string text = "7 records were dropped: standard error did not accept them";
    EXPECT_THAT(LineOfDropped(7, LogFormat::Text), EndsWith("Z WARN  log: " + text));
    EXPECT_EQ(LineOfDropped(7, LogFormat::Journal), "<4>log: " + text);
    const auto object = nlohmann::json::parse(LineOfDropped(7, LogFormat::Json));
    EXPECT_EQ(object["message"], text);
    EXPECT_EQ(object["level"], "warning");
    EXPECT_TRUE(object["file"].is_null());
}

} // namespace
} // namespace borven_host
