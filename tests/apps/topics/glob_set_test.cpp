// Patterns of topics: bytes, whole topics, and what matches nothing.

#include "topics/glob_set.h"

#include <gtest/gtest.h>

namespace {

using topics::GlobSet;

bool Matches(const std::string& pattern, const std::string& topic) {
    return GlobSet({pattern}).Matches(topic);
}

TEST(GlobSetTest, AStar_MatchesAnyBytes_AlsoSlashesAndALeadingDot) {
    EXPECT_TRUE(Matches("*", ".a/b"));
    EXPECT_TRUE(Matches("a/*", "a/b/c"));
    EXPECT_TRUE(Matches("a*", "a"));
    EXPECT_FALSE(Matches("a/*", "a"));
    EXPECT_FALSE(Matches("a", "ab"));
    EXPECT_FALSE(Matches("b", "ab"));
}

TEST(GlobSetTest, AQuestionMark_IsOneByte) {
    EXPECT_TRUE(Matches("a?", "a\xFF"));
    EXPECT_TRUE(Matches("a??", "a\xC3\xA9"));
    EXPECT_FALSE(Matches("a?", "a\xC3\xA9"));
    EXPECT_FALSE(Matches("a?", "a"));
}

TEST(GlobSetTest, Brackets_AreOneOfSome) {
    EXPECT_TRUE(Matches("t[1-3]", "t2"));
    EXPECT_FALSE(Matches("t[1-3]", "t4"));
    EXPECT_TRUE(Matches("t[!1-3]", "t4"));
    EXPECT_TRUE(Matches("t[", "t["));
}

TEST(GlobSetTest, ABackslash_TakesTheNextByteAsItIs) {
    EXPECT_TRUE(Matches("a\\*", "a*"));
    EXPECT_FALSE(Matches("a\\*", "ab"));
    EXPECT_TRUE(Matches("a\\\\", "a\\"));
}

TEST(GlobSetTest, SeveralPatterns_MatchWhatOneOfThemDoes) {
    const GlobSet globs({"a*", "b"});
    EXPECT_TRUE(globs.Matches("ab"));
    EXPECT_TRUE(globs.Matches("b"));
    EXPECT_FALSE(globs.Matches("c"));
    EXPECT_FALSE(GlobSet({}).Matches("a"));
}

TEST(GlobSetTest, PatternsThatMatchNothing_AreRefused) {
    EXPECT_THROW(GlobSet({""}), std::invalid_argument);
    EXPECT_THROW(GlobSet({"a\\"}), std::invalid_argument);
    EXPECT_THROW(GlobSet({"\\"}), std::invalid_argument);
    EXPECT_NO_THROW(GlobSet({"a\\\\"}));
}

} // namespace
