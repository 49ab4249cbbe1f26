// Defends what is remembered of topics whose publishers have left: the newest value of each, and no more topics than
// there is room for.
#include "last_values.h"

#include <gtest/gtest.h>

#include <optional>

namespace {

using msgbus_server::LastValues;

TEST(LastValuesTest, Find_OfATopicThatWasNotKept_ReturnsNothing) {
    EXPECT_EQ(LastValues(2).Find("heat"), std::nullopt);
}

TEST(LastValuesTest, Find_ReturnsWhatWasKeptLast) {
    LastValues values(2);
    values.Keep("heat", 1);
    values.Keep("heat", 2);
    EXPECT_EQ(values.Find("heat"), 2);
}

TEST(LastValuesTest, Keep_WithoutRoom_ForgetsTheTopicThatWasKeptLongestAgo) {
    LastValues values(2);
    values.Keep("heat", 1);
    values.Keep("cold", 2);
    values.Keep("heat", 3);
    values.Keep("rain", 4);
    EXPECT_EQ(values.Find("heat"), 3);
    EXPECT_EQ(values.Find("cold"), std::nullopt);
    EXPECT_EQ(values.Find("rain"), 4);
}

} // namespace
