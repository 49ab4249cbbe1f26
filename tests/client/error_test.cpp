// Defends that each result code of the bus has its own sentence.
#include "msgbus/error.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

TEST(ErrorTest, DescribeResult_TellsEveryCodeApart) {
    std::set<std::string> sentences;
    for (std::int32_t code = -1; code <= 11; ++code) {
        EXPECT_FALSE(msgbus::DescribeResult(code).empty());
        sentences.insert(msgbus::DescribeResult(code));
    }
    EXPECT_EQ(sentences.size(), 13U);
}

} // namespace
