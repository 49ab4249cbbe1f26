// Defends the one way in which log lines and the programs show bytes of unknown origin: no byte reaches a terminal that
// could control it, and the bytes can be had back.
#include "common/escape.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <random>

namespace {

using common::Escaped;
using namespace std::literals;

/// What `printf %b` of bash makes of an escaped text.
std::string Unescaped(std::string_view text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            bytes += text[i];
            continue;
        }
        const char kind = text[++i];
        if (kind == 'x') {
            bytes += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            bytes += kind == 'n' ? '\n' : kind == 't' ? '\t' : kind;
        }
    }
    return bytes;
}

TEST(EscapeTest, PlainText_StaysAsItIs) {
    EXPECT_EQ(Escaped("Temperatur in \xc3\xa9t\xc3\xa9 \xf0\x9f\x98\x80 'x' \"y\""),
              "Temperatur in \xc3\xa9t\xc3\xa9 \xf0\x9f\x98\x80 'x' \"y\"");
}

TEST(EscapeTest, ControlCharacters_BecomeEscapes) {
    EXPECT_EQ(Escaped("a\nb\tc\rd\0e\x1b[31mf\x7fg"sv), "a\\nb\\tc\\x0dd\\x00e\\x1b[31mf\\x7fg");
}

TEST(EscapeTest, TheSecondSetOfControlCharacters_BecomesEscapes_AsUtf8AndAsLoneBytes) {
    EXPECT_EQ(Escaped("a\xc2\x9b"
                      "31mb\x9b"
                      "31mc\xc2\x85"),
              "a\\xc2\\x9b31mb\\x9b31mc\\xc2\\x85");
}

TEST(EscapeTest, CharactersThatBreakOrReorderALine_BecomeEscapes) {
    EXPECT_EQ(Escaped("a\xe2\x80\xa8"
                      "b\xe2\x80\xae"
                      "c\xe2\x81\xa6"
                      "d"),
              "a\\xe2\\x80\\xa8b\\xe2\\x80\\xaec\\xe2\\x81\\xa6d");
}

TEST(EscapeTest, CharactersThatAreNotSeen_BecomeEscapes) {
    EXPECT_EQ(Escaped("a\xc2\xad"
                      "b\xe2\x80\x8f"
                      "c\xd8\x9c"
                      "d\xef\xbb\xbf"
                      "e\xe2\x81\xa0"),
              "a\\xc2\\xadb\\xe2\\x80\\x8fc\\xd8\\x9cd\\xef\\xbb\\xbfe\\xe2\\x81\\xa0");
}

TEST(EscapeTest, ABackslash_IsDoubled_SoThatNoTextLooksLikeAnEscape) {
    EXPECT_EQ(Escaped("\\x1b"), "\\\\x1b");
    EXPECT_NE(Escaped("\\x1b"), Escaped("\x1b"));
}

TEST(EscapeTest, AnyBytes_ComeBack_AndNoneOfThemControlsATerminal) {
    std::mt19937 random(1);
    for (int round = 0; round < 2000; ++round) {
        std::string bytes(random() % 40, '\0');
        for (char& byte : bytes) {
            // Half of them from the lead and continuation bytes around the control characters.
            constexpr std::string_view interesting = "\\\n\t\x1b\x7f\x9b\xc2\xe2\x80\xa8\x81\xa6";
            byte = random() % 2 == 0 ? interesting[random() % interesting.size()] : static_cast<char>(random());
        }
        const std::string text = Escaped(bytes);
        ASSERT_EQ(Unescaped(text), bytes) << text;
        for (std::string_view rest = text; !rest.empty();) {
            const auto step = utf8::Decode(rest);
            ASSERT_TRUE(step.valid && !common::IsControl(step.point)) << text;
            rest.remove_prefix(step.length);
        }
    }
}

} // namespace
