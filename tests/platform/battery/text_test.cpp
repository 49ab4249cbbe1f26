// Defends tua/text.h: text survives conversion both ways, and bytes that are not valid text become U+FFFD.
#include "tua/text.h"

#include <gtest/gtest.h>

namespace platform_test {
namespace {

using namespace std::literals;
using tua::text::Cast;

TEST(Text, EveryKindOfCharacter_GoesThereAndBack) {
    const auto utf8 =
        "a\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"sv;
    const auto utf16 = u"a\u007F\u0080\u07FF\u0800\uD7FF\uE000\uFFFF\U00010000\U0010FFFF"sv;
    EXPECT_EQ(utf16, Cast<std::u16string>(utf8));
    EXPECT_EQ(utf8, Cast<std::string>(utf16));
}

TEST(Text, Nothing_StaysNothing_AndZerosPass) {
    EXPECT_EQ("", Cast<std::string>(u""sv));
    EXPECT_EQ(u"", Cast<std::u16string>(""sv));
    EXPECT_EQ("a\0b"sv, Cast<std::string>(u"a\0b"sv));
    EXPECT_EQ(u"a\0b"sv, Cast<std::u16string>("a\0b"sv));
}

TEST(Text, WhatIsNoUtf8_BecomesTheReplacementCharacter) {
    EXPECT_EQ(u"a\uFFFDb"sv, Cast<std::u16string>("a\x80"
                                                  "b"sv))
        << "a lone continuation";
    EXPECT_EQ(u"\uFFFD\uFFFD"sv, Cast<std::u16string>("\xC0\x80"sv)) << "an overlong zero";
    EXPECT_EQ(u"\uFFFD\uFFFD\uFFFD"sv, Cast<std::u16string>("\xE0\x80\x80"sv)) << "an overlong form";
    EXPECT_EQ(u"\uFFFD\uFFFD\uFFFD"sv, Cast<std::u16string>("\xED\xA0\x80"sv)) << "a surrogate";
    EXPECT_EQ(u"\uFFFD\uFFFD\uFFFD\uFFFD"sv, Cast<std::u16string>("\xF4\x90\x80\x80"sv)) << "beyond the last one";
    EXPECT_EQ(u"\uFFFD"sv, Cast<std::u16string>("\xE2\x82"sv)) << "cut off";
    EXPECT_EQ(u"\uFFFDx"sv, Cast<std::u16string>("\xF0\x9F\x98x"sv)) << "cut off by another";
    EXPECT_EQ(u"\uFFFD\uFFFD"sv, Cast<std::u16string>("\xFE\xFF"sv));
}

TEST(Text, ASurrogateAlone_BecomesTheReplacementCharacter) {
    constexpr char16_t high[] = {0xD83D, u'x', 0};
    constexpr char16_t low[] = {0xDE00, 0};
    constexpr char16_t wrongWay[] = {0xDE00, 0xD83D, 0};
    EXPECT_EQ("\xEF\xBF\xBDx"sv, Cast<std::string>(std::u16string_view(high)));
    EXPECT_EQ("\xEF\xBF\xBD"sv, Cast<std::string>(std::u16string_view(low)));
    EXPECT_EQ("\xEF\xBF\xBD\xEF\xBF\xBD"sv, Cast<std::string>(std::u16string_view(wrongWay)));
}

} // namespace
} // namespace platform_test
