// Defends the limit of log sites: no client can fill a log with a record that it causes, and nothing that is left out
// goes uncounted.
#include "base/log_limit.h"

#include <gmock/gmock.h>

namespace borven_host {
namespace {

using bos::logger::LogLevel;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Time = LogLimit::Clock::time_point;

constexpr Time Start{std::chrono::hours(1)};

class LogLimitTest : public ::testing::Test {
protected:
    bool Admit(Time now, int line = 1, std::string_view text = "text", std::string_view file = "file.cpp") {
        return limit.Admit({LogLevel::Error, file, line, "Function", text}, now);
    }

    /// Returns: how many of `count` records were admitted.
    unsigned AdmitMany(Time now, unsigned count, int line = 1) {
        unsigned admitted = 0;
        for (unsigned i = 0; i < count; ++i) {
            admitted += Admit(now, line) ? 1 : 0;
        }
        return admitted;
    }

    LogLimit limit;
};

TEST_F(LogLimitTest, ASite_WritesItsBurst_AndTheRestIsCounted) {
    EXPECT_EQ(AdmitMany(Start, 100), LogLimit::Burst);
    EXPECT_FALSE(Admit(Start + milliseconds(999), 1, "the last one"));
    EXPECT_FALSE(limit.IsDue(Start + milliseconds(999)));
    EXPECT_TRUE(limit.Take(Start + milliseconds(999)).empty());
    ASSERT_TRUE(limit.IsDue(Start + seconds(1)));
    const auto reports = limit.Take(Start + seconds(1));
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].level, LogLevel::Error);
    EXPECT_EQ(reports[0].file, "file.cpp");
    EXPECT_EQ(reports[0].line, 1);
    EXPECT_EQ(reports[0].function, "Function");
    EXPECT_EQ(reports[0].text, "81 more suppressed; the last: the last one");
    EXPECT_FALSE(limit.IsDue(Start + seconds(100))) << "reported once";
}

TEST_F(LogLimitTest, ASite_WithinItsBurst_WritesEverything) {
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(AdmitMany(Start + seconds(i), LogLimit::Burst), LogLimit::Burst);
        EXPECT_FALSE(limit.IsDue(Start + seconds(i)));
    }
}

TEST_F(LogLimitTest, TheFirstRecordOfASite_IsWritten_WhateverOthersDo) {
    AdmitMany(Start, 1000, 1);
    EXPECT_TRUE(Admit(Start, 2)) << "another line";
    EXPECT_TRUE(Admit(Start, 1, "text", "other.cpp")) << "another file";
}

TEST_F(LogLimitTest, ASiteThatGoesOn_WritesLessAndLess_DownToABurstAMinute) {
    constexpr seconds span{2 * 60 * 60};
    unsigned lines = 0;
    std::uint64_t written = 0;
    for (Time now = Start; now < Start + span; now += milliseconds(10)) {
        if (limit.IsDue(now)) {
            lines += static_cast<unsigned>(limit.Take(now).size());
        }
        written += Admit(now) ? 1 : 0;
    }
    lines += static_cast<unsigned>(written);
    EXPECT_GE(lines, 120 * (LogLimit::Burst + 1));
    EXPECT_LE(lines, 130 * (LogLimit::Burst + 1));
}

TEST_F(LogLimitTest, ASpanWithoutAnExcess_GivesTheSiteItsSecondBack) {
    AdmitMany(Start, 100);
    limit.Take(Start + seconds(1)); // the span of two seconds begins
    EXPECT_EQ(AdmitMany(Start + seconds(1), LogLimit::Burst), LogLimit::Burst);
    EXPECT_EQ(AdmitMany(Start + seconds(3), LogLimit::Burst), LogLimit::Burst);
    EXPECT_EQ(AdmitMany(Start + seconds(4), LogLimit::Burst), LogLimit::Burst);
}

TEST_F(LogLimitTest, AllThatIsLeft_IsReportedAtTheEnd) {
    AdmitMany(Start, 21, 1);
    AdmitMany(Start, 22, 2);
    std::vector<std::string> texts;
    for (const auto& report : limit.Take(Time::max())) {
        texts.push_back(report.text);
    }
    EXPECT_THAT(texts, ::testing::UnorderedElementsAre("1 more suppressed; the last: text",
                                                       "2 more suppressed; the last: text"));
    EXPECT_TRUE(limit.Take(Time::max()).empty());
}

TEST_F(LogLimitTest, OneReport_LeavesTheOtherSitesDueInTheirTime) {
    AdmitMany(Start, 21, 1);
    AdmitMany(Start + milliseconds(500), 21, 2);
    EXPECT_EQ(limit.Take(Start + seconds(1)).size(), 1u);
    EXPECT_FALSE(limit.IsDue(Start + milliseconds(1499)));
    EXPECT_TRUE(limit.IsDue(Start + milliseconds(1500)));
}

TEST_F(LogLimitTest, ALongText_IsCutInTheReport) {
    const std::string text(100000, 'x');
    AdmitMany(Start, LogLimit::Burst);
    EXPECT_FALSE(Admit(Start, 1, text));
    EXPECT_LT(limit.Take(Start + seconds(1)).at(0).text.size(), LogLimit::MaxTextSize + 100);
}

TEST_F(LogLimitTest, ATableThatIsFull_ForgetsSitesThatAreQuiet_AndStillCountsTheOthers) {
    AdmitMany(Start, 21, -1);
    for (int line = 0; line < 10 * static_cast<int>(LogLimit::MaxSites); ++line) {
        EXPECT_TRUE(Admit(Start, line));
    }
    EXPECT_EQ(AdmitMany(Start, 100, 1000000), 100u) << "no site is quiet yet: this one is not limited";
    EXPECT_EQ(AdmitMany(Start + seconds(1), 100, 1000000), LogLimit::Burst);
    ASSERT_EQ(limit.Take(Start + seconds(1)).size(), 1u);
}

TEST_F(LogLimitTest, AFork_TakesNoCountAlong) {
    AdmitMany(Start, 100);
    limit.Clear();
    EXPECT_FALSE(limit.IsDue(Start + seconds(100)));
    EXPECT_TRUE(limit.Take(Time::max()).empty());
}

} // namespace
} // namespace borven_host
