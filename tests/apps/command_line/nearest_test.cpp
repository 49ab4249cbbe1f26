// What a mistyped word was probably meant to be.

#include "command_line/nearest.h"

#include <gtest/gtest.h>

namespace {

using command_line::Nearest;

TEST(Nearest, OneChangedMissingAddedOrSwappedCharacter_IsFound) {
    const std::vector<std::string> names{"--name", "--count", "--wait"};
    for (const char* word : {"--nbme", "--nme", "--naame", "--nmae"}) {
        EXPECT_EQ(Nearest(word, names), "--name") << word;
    }
}

TEST(Nearest, AWordThatIsLikeNone_HasNoNearest) {
    EXPECT_EQ(Nearest("--frobnicate", {"--name", "--count", "--wait"}), std::nullopt);
    EXPECT_EQ(Nearest("x", {"pub"}), std::nullopt);
    EXPECT_EQ(Nearest("pub", {}), std::nullopt);
}

TEST(Nearest, OfSeveral_TheOneWithTheFewestChangesIsMeant) {
    EXPECT_EQ(Nearest("recrod", {"replay", "record", "report"}), "record");
}

TEST(Nearest, AVeryLongWord_HasNoNearest) {
    EXPECT_EQ(Nearest(std::string(100'000, 'x'), {std::string(100'000, 'x')}), std::nullopt);
}

} // namespace
