// Defends the words that let in who has them: each is new, and nothing but the word itself passes for it.
#include "common/secret.h"

#include <gtest/gtest.h>

namespace {

TEST(SecretTest, Secrets_AreLongAndDiffer) {
    EXPECT_EQ(common::MakeSecret().size(), 64U);
    EXPECT_NE(common::MakeSecret(), common::MakeSecret());
}

TEST(SecretTest, OnlyTheSecretItself_IsOne) {
    EXPECT_TRUE(common::IsSecret("abcd", "abcd"));
    for (const auto* const text : {"", "abc", "abcde", "xbcd", "abcx", "abCd"}) {
        EXPECT_FALSE(common::IsSecret("abcd", text)) << text;
    }
}

} // namespace
