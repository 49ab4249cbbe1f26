// Aligned columns: a table whose lines do not agree, or that is wider than the terminal, cannot be read.

#include "terminal/text_table.h"

#include "terminal/text_width.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using terminal::Table;
using testing::ElementsAre;
using enum Table::Align;

TEST(TextTableTest, Lines_AlignColumnsAndDoNotPadTheLast) {
    Table table({{"N"}, {"KIND", Left}, {"NAME", Left}});
    table.Add({"100", "x", "a"});
    table.Add({"7", "long one", "a longer name"});
    EXPECT_THAT(table.Lines(), ElementsAre("  N  KIND      NAME", "100  x         a", "  7  long one  a longer name"));
}

TEST(TextTableTest, Lines_WithAWidth_AreCut) {
    Table table({{"N"}, {"NAME", Left}});
    table.Add({"1", "a very long name"});
    EXPECT_THAT(table.Lines(10), ElementsAre("N  NAME", "1  a ver.."));
}

TEST(TextTableTest, Lines_WithWideCharacters_CountTheirColumns) {
    Table table({{"NAME", Left}, {"X", Left}});
    table.Add({"温度", "1"});    // two columns each
    table.Add({"e\u0301", "2"}); // with a combining accent: one column
    EXPECT_THAT(table.Lines(), ElementsAre("NAME  X", "温度  1", "e\u0301     2"));
}

TEST(TextTableTest, Text_WithoutRows_IsTheHeadings) {
    EXPECT_EQ(Table({{"A"}, {"B", Left}}).Text("> "), "> A  B\n");
}

TEST(TextTableTest, LeastWidth_IsKept) {
    EXPECT_THAT(Table({{"A", Right, 4}, {"B", Left}}).Lines(), ElementsAre("   A  B"));
}

TEST(TextWidthTest, FitTo_WithTextThatFits_ReturnsIt) {
    EXPECT_EQ(terminal::FitTo("abc", 3), "abc");
    EXPECT_EQ(terminal::FitTo("", 0), "");
}

TEST(TextWidthTest, FitTo_WithLongerText_EndsInDots) {
    EXPECT_EQ(terminal::FitTo("abcd", 3), "a..");
    EXPECT_EQ(terminal::FitTo("abcd", 1), ".");
}

TEST(TextWidthTest, FitTo_NeverCutsACharacter) {
    EXPECT_EQ(terminal::FitTo("温度計", 5), "温..");
    EXPECT_EQ(terminal::FitTo("温度計", 4), "温..");
    EXPECT_EQ(terminal::FitTo("温度計", 3), "..");
}

} // namespace
