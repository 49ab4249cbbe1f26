// Defends what a value means by its topic's description: as a number, and as text for people.
#include "instruments/described_value.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <limits>
#include <ostream>

namespace {

using instruments::DescribedText;
using instruments::DescribedValue;

struct Example {
    const char* description;
    std::int64_t bits;
    double number;
    const char* text;
};

std::ostream& operator<<(std::ostream& out, const Example& example) {
    return out << example.description << ' ' << example.bits;
}

class DescribedValueTest : public testing::TestWithParam<Example> {};

TEST_P(DescribedValueTest, IsTheNumberAndTheText) {
    const auto& [description, bits, number, text] = GetParam();

    EXPECT_DOUBLE_EQ(DescribedValue(description, bits), number);
    EXPECT_EQ(DescribedText(description, bits), text);
}

const auto Half = std::bit_cast<std::int64_t>(-0.5);
const auto Quarter = static_cast<std::int64_t>(std::bit_cast<std::uint32_t>(0.25F));

INSTANTIATE_TEST_SUITE_P(
    Types, DescribedValueTest,
    testing::Values(Example{"int64", -7, -7, "-7"}, Example{"int64;unit=rpm", 7, 7, "7 rpm"},
                    Example{"uint64", -1, 18446744073709551615.0, "18446744073709551615"},
                    Example{"bool", 1, 1, "true"}, Example{"bool", 0, 0, "false"}, Example{"bool", 2, 2, ""},
                    Example{"float64", Half, -0.5, "-0.5"}, Example{"float32;unit=m", Quarter, 0.25, "0.25 m"},
                    Example{"fixed;step=1/10;unit=V", 215, 21.5, "21.5 V"},
                    Example{"fixed;step=1/1000", -1, -0.001, "-0.001"}, Example{"fixed;step=5/1", 3, 15, "15"},
                    Example{"fixed;step=1/4", 3, 0.75, "0.75"},
                    Example{"fixed;step=1/100", std::numeric_limits<std::int64_t>::max(), 92233720368547758.07,
                            "92233720368547758.07"},
                    Example{"time;unit=ns", 1'000'000'001, 1.000000001, "1970-01-01T00:00:01.000000001Z"},
                    Example{"example.point", 12, 12, "12"}));

TEST(DescribedTextTest, EnumValue_HasItsNameAndNoOther) {
    EXPECT_EQ(DescribedText("enum;names=0:off,1:on", 1), "on");
    EXPECT_EQ(DescribedText("enum;names=0:off,1:on", 2), "");
    EXPECT_EQ(DescribedText("enum", 2), "2");
}

TEST(DescribedTextTest, WithoutADescriptionThatIsUnderstood_IsEmpty) {
    EXPECT_EQ(DescribedText("", 1), "");
    EXPECT_EQ(DescribedText("of;a=newer server", 1), "");
    EXPECT_EQ(DescribedValue("of;a=newer server", 5), 5.0);
}

} // namespace
