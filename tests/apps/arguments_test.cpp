// The words of a command line that stand for values, counts, durations and rates.

#include "arguments.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

namespace {

using namespace std::chrono_literals;

TEST(Arguments, AValue_IsDecimalOrTheBitsInHexadecimal) {
    EXPECT_EQ(ParseValue("-12"), -12);
    EXPECT_EQ(ParseValue("0x10"), 16);
    EXPECT_EQ(ParseValue("0XfF"), 255);
    EXPECT_EQ(ParseValue("0xffffffffffffffff"), -1);
    EXPECT_EQ(ParseValue("0x8000000000000000"), std::numeric_limits<std::int64_t>::min());
}

TEST(Arguments, WhatIsNoValue_IsRefused) {
    for (const char* text :
         {"", "x", "1.5", "1e3", "0x", "0xg", "-0x1", " 1", "1 ", "+1", "--5", "0x10000000000000000"}) {
        EXPECT_THROW(ParseValue(text), std::invalid_argument) << text;
    }
}

TEST(Arguments, ADuration_HasAUnitOrMeansSeconds) {
    EXPECT_EQ(ParseDuration("10"), 10s);
    EXPECT_EQ(ParseDuration("1.5s"), 1500ms);
    EXPECT_EQ(ParseDuration("200ms"), 200ms);
    EXPECT_EQ(ParseDuration("5m"), 5min);
    EXPECT_EQ(ParseDuration("1h"), 1h);
    for (const char* text : {"0", "-1", "x", "5parsecs", "", "nan", "inf", "1e300", "0.1ms"}) {
        EXPECT_THROW(ParseDuration(text), std::invalid_argument) << text;
    }
}

TEST(Arguments, ARate_BecomesTheTimeBetweenTwoEvents) {
    EXPECT_EQ(ParseRate("10"), 100ms);
    EXPECT_EQ(ParseRate("0.5"), 2s);
    EXPECT_EQ(ParseRate("1e6"), 1us);
    for (const char* text : {"0", "-1", "x", "", "nan", "inf", "1e7", "1e-9", "10Hz"}) {
        EXPECT_THROW(ParseRate(text), std::invalid_argument) << text;
    }
}

TEST(Arguments, ACount_IsAtLeastOne) {
    EXPECT_EQ(ParseCount("1"), 1U);
    for (const char* text : {"0", "-1", "x", "1.5", "", "18446744073709551616"}) {
        EXPECT_THROW(ParseCount(text), std::invalid_argument) << text;
    }
}

} // namespace
