// Defends the codecs: every value of a type arrives as it was sent, what is no value is refused, and descriptions tell
// types apart and survive their text form.
#include "msgbus/codec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

enum class Mode : std::uint8_t { Off, Heating = 4, Cooling = 2 };
enum class Plain : std::int16_t { First = -5 };

struct Volt {
    static constexpr const char* Name = "V";
};

} // namespace

template <>
struct msgbus::EnumNames<Mode> {
    static constexpr msgbus::EnumName<Mode> List[] = {
        {Mode::Off, "off"}, {Mode::Heating, "heating"}, {Mode::Cooling, "cooling"}};
};

namespace {

using msgbus::CheckType;
using msgbus::Codec;
using msgbus::Description;
using msgbus::Fixed;
using msgbus::FixedPoint;
using msgbus::TypeMismatchError;
using testing::HasSubstr;

constexpr auto Least = std::numeric_limits<std::int64_t>::min();
constexpr auto Greatest = std::numeric_limits<std::int64_t>::max();

template <typename T>
void ExpectRoundTrip(T value, std::int64_t bits) {
    EXPECT_EQ(Codec<T>::Encode(value), bits);
    EXPECT_EQ(Codec<T>::Decode(bits), value);
}

template <typename Function>
std::string SentenceOf(Function&& function) {
    try {
        function();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "";
}

template <typename T>
class IntegerCodecTest : public testing::Test {};
using Integers = testing::Types<char, std::int8_t, std::int16_t, std::int32_t, std::int64_t, long long, std::uint8_t,
                                std::uint16_t, std::uint32_t, char16_t, wchar_t>;
TYPED_TEST_SUITE(IntegerCodecTest, Integers);

TYPED_TEST(IntegerCodecTest, Limits_ArriveAndWhatIsBeyondIsRefused) {
    using Limits = std::numeric_limits<TypeParam>;
    const auto least = static_cast<std::int64_t>(Limits::min());
    const auto greatest = static_cast<std::int64_t>(Limits::max());
    ExpectRoundTrip(Limits::min(), least);
    ExpectRoundTrip(Limits::max(), greatest);
    if constexpr (Limits::min() == 0 || sizeof(TypeParam) < sizeof(Least)) {
        EXPECT_THROW(Codec<TypeParam>::Decode(least - 1), std::out_of_range);
        EXPECT_THROW(Codec<TypeParam>::Decode(Least), std::out_of_range);
    }
    if constexpr (sizeof(TypeParam) < sizeof(Greatest)) {
        EXPECT_THROW(Codec<TypeParam>::Decode(greatest + 1), std::out_of_range);
        EXPECT_THROW(Codec<TypeParam>::Decode(Greatest), std::out_of_range);
    }
}

TEST(CodecTest, Uint64_TravelsInTwosComplement) {
    ExpectRoundTrip<std::uint64_t>(0, 0);
    ExpectRoundTrip<std::uint64_t>(std::numeric_limits<std::uint64_t>::max(), -1);
    ExpectRoundTrip<std::uint64_t>(std::uint64_t{1} << 63, Least);
}

TEST(CodecTest, Bool_IsZeroOrOne) {
    ExpectRoundTrip(false, 0);
    ExpectRoundTrip(true, 1);
    for (const std::int64_t bits : {std::int64_t{2}, std::int64_t{-1}, std::int64_t{256}, Least}) {
        EXPECT_THROW(Codec<bool>::Decode(bits), std::out_of_range);
    }
    EXPECT_EQ(SentenceOf([] { Codec<bool>::Decode(2); }), "2 is no value of type bool");
}

TEST(CodecTest, AnEnumWithNames_TakesOnlyThese) {
    ExpectRoundTrip(Mode::Off, 0);
    ExpectRoundTrip(Mode::Heating, 4);
    EXPECT_THROW(Codec<Mode>::Decode(1), std::out_of_range);
    EXPECT_THROW(Codec<Mode>::Decode(256), std::out_of_range); // off, in its lowest byte
    EXPECT_THROW(Codec<Mode>::Encode(static_cast<Mode>(3)), std::out_of_range);
}

TEST(CodecTest, AnEnumWithoutNames_TakesWhatItsTypeHolds) {
    ExpectRoundTrip(Plain::First, -5);
    ExpectRoundTrip(static_cast<Plain>(-32768), -32768);
    EXPECT_THROW(Codec<Plain>::Decode(32768), std::out_of_range);
}

TEST(CodecTest, Double_TravelsByItsBits) {
    using Limits = std::numeric_limits<double>;
    for (const double value : {0.0, 1.0, -21.5, 0.1, Limits::min(), Limits::max(), Limits::denorm_min(),
                               Limits::infinity(), -Limits::infinity()}) {
        EXPECT_EQ(Codec<double>::Decode(Codec<double>::Encode(value)), value);
    }
    ExpectRoundTrip(1.0, 0x3FF0000000000000);
    ExpectRoundTrip(-0.0, Least);
    EXPECT_TRUE(std::signbit(Codec<double>::Decode(Least)));
    for (const std::int64_t bits : {0x7FF8000000000000, 0x7FF80000DEADBEEF, 0x7FFFFFFFFFFFFFFF, std::int64_t{-1}}) {
        EXPECT_TRUE(std::isnan(Codec<double>::Decode(bits)));
        EXPECT_EQ(Codec<double>::Encode(Codec<double>::Decode(bits)), bits);
    }
}

TEST(CodecTest, Float_TravelsInTheLowerHalf) {
    ExpectRoundTrip(1.0F, 0x3F800000);
    ExpectRoundTrip(-2.0F, 0xC0000000);
    EXPECT_EQ(Codec<float>::Encode(Codec<float>::Decode(0xFFC0BEEF)), 0xFFC0BEEF);
    EXPECT_THROW(Codec<float>::Decode(-1), std::out_of_range);
    EXPECT_THROW(Codec<float>::Decode(0x100000000), std::out_of_range);
}

TEST(CodecTest, FixedPoint_TravelsAsItsSteps) {
    using Voltage = Fixed<-3, Volt>;
    ExpectRoundTrip(Voltage::FromDouble(21.5), 21500);
    ExpectRoundTrip(Voltage::FromSteps(Least), Least);
    ExpectRoundTrip(FixedPoint<std::ratio<5, 2>>::FromDouble(-5), -2);
    ExpectRoundTrip(Fixed<3>::FromDouble(2499), 2);
}

TEST(FixedPointTest, FromDouble_RoundsToTheNearestStepAndHalvesAwayFromZero) {
    using Halves = FixedPoint<std::ratio<1, 2>>;
    for (const auto& [number, steps] : std::vector<std::pair<double, std::int64_t>>{
             {0.24, 0}, {0.25, 1}, {-0.24, 0}, {-0.25, -1}, {0.74, 1}, {0.75, 2}, {-0.75, -2}, {0.5, 1}}) {
        EXPECT_EQ(Halves::FromDouble(number).Steps(), steps) << number;
    }
    for (int steps = -100000; steps <= 100000; ++steps) {
        const auto number = Fixed<-3>::FromSteps(steps);
        ASSERT_EQ(Fixed<-3>::FromDouble(number.ToDouble()), number);
    }
}

TEST(FixedPointTest, FromDouble_OutOfRangeIsRefused) {
    EXPECT_EQ(Fixed<0>::FromDouble(-0x1p63).Steps(), Least);
    EXPECT_EQ(Fixed<0>::FromDouble(std::nextafter(0x1p63, 0)).Steps(), Greatest - 1023);
    for (const double number :
         {0x1p63, std::nextafter(-0x1p63, -1e30), 1e300, -1e300, std::numeric_limits<double>::infinity(),
          -std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN()}) {
        EXPECT_THROW(Fixed<0>::FromDouble(number), std::out_of_range) << number;
    }
    EXPECT_THROW(Fixed<-18>::FromDouble(9.3), std::out_of_range);
    EXPECT_EQ(Fixed<18>::FromDouble(9e36).Steps(), 9000000000000000000);
}

TEST(FixedPointTest, Sums_AreExactOrRefused) {
    constexpr auto one = Fixed<-2>::FromSteps(1);
    constexpr auto greatest = Fixed<-2>::FromSteps(Greatest);
    constexpr auto least = Fixed<-2>::FromSteps(Least);
    EXPECT_EQ((greatest - one + one).Steps(), Greatest);
    EXPECT_EQ((-greatest - one).Steps(), Least);
    EXPECT_THROW(greatest + one, std::overflow_error);
    EXPECT_THROW(least - one, std::overflow_error);
    EXPECT_THROW(-least, std::overflow_error);
    EXPECT_TRUE(least < one && one <= one && greatest > one && greatest >= greatest && one != greatest);
}

using std::chrono::system_clock;
template <typename Duration>
using TimeIn = std::chrono::time_point<system_clock, Duration>;

TEST(CodecTest, Time_TravelsAsNanosecondsSinceTheEpoch) {
    ExpectRoundTrip(system_clock::time_point(), 0);
    ExpectRoundTrip(TimeIn<std::chrono::seconds>(std::chrono::seconds(-3)), -3000000000);
    ExpectRoundTrip(TimeIn<std::chrono::nanoseconds>(std::chrono::nanoseconds(Least)), Least);
    const auto now = system_clock::now();
    EXPECT_EQ(Codec<system_clock::time_point>::Decode(Codec<system_clock::time_point>::Encode(now)), now);
}

TEST(CodecTest, Time_OutOfRangeIsRefused) {
    using Seconds = TimeIn<std::chrono::seconds>;
    constexpr std::int64_t limit = 9223372036;
    EXPECT_EQ(Codec<Seconds>::Encode(Seconds(std::chrono::seconds(limit))), limit * 1000000000);
    EXPECT_THROW(Codec<Seconds>::Encode(Seconds(std::chrono::seconds(limit + 1))), std::out_of_range);
    EXPECT_THROW(Codec<Seconds>::Encode(Seconds::min()), std::out_of_range);
    using ShortSeconds = TimeIn<std::chrono::duration<std::int32_t>>;
    EXPECT_THROW(Codec<ShortSeconds>::Decode(Greatest), std::out_of_range);
}

TEST(CodecTest, Time_InACoarserTypeIsTheOneBefore) {
    using Seconds = TimeIn<std::chrono::seconds>;
    for (const auto& [nanoseconds, seconds] : std::vector<std::pair<std::int64_t, std::int64_t>>{
             {999999999, 0}, {1000000000, 1}, {-1, -1}, {-1000000000, -1}, {-1000000001, -2}, {Least, -9223372037}}) {
        EXPECT_EQ(Codec<Seconds>::Decode(nanoseconds).time_since_epoch().count(), seconds) << nanoseconds;
    }
}

TEST(DescriptionTest, Types_DescribeThemselves) {
    EXPECT_EQ(Codec<std::int64_t>::Describe(), Description());
    EXPECT_EQ(Codec<std::int64_t>::Describe().ToText(), "int64");
    EXPECT_EQ(Codec<unsigned short>::Describe().ToText(), "uint16");
    EXPECT_EQ(Codec<bool>::Describe().ToText(), "bool");
    EXPECT_EQ(Codec<double>::Describe().ToText(), "float64");
    EXPECT_EQ(Codec<float>::Describe().ToText(), "float32");
    EXPECT_EQ((Codec<Fixed<-3, Volt>>::Describe().ToText()), "fixed;step=1/1000;unit=V");
    EXPECT_EQ((Codec<Fixed<2>>::Describe().ToText()), "fixed;step=100/1");
    EXPECT_EQ(Codec<Mode>::Describe().ToText(), "enum;names=0:off,2:cooling,4:heating");
    EXPECT_EQ(Codec<Plain>::Describe().ToText(), "enum");
    EXPECT_EQ(Codec<system_clock::time_point>::Describe().ToText(), "time;unit=ns");
}

Description MakeRich() {
    Description description;
    description.type = "enum";
    description.unit = "50% of; a, b: \u00B0C ";
    description.names = {{Least, "a;b"}, {-1, "\u00E4:,%"}, {0, " "}, {Greatest, "z"}};
    description.remark = "The state; see names=1:x, unit=%20.";
    return description;
}

TEST(DescriptionTest, TheTextForm_GivesTheDescriptionBack) {
    const Description rich = MakeRich();
    const std::string text = rich.ToText();
    EXPECT_EQ(text.find_first_of(" \n"), std::string::npos);
    EXPECT_EQ(Description::FromText(text), rich);
    Description fixed = Codec<Fixed<-3, Volt>>::Describe();
    fixed.remark = "The battery's voltage";
    EXPECT_EQ(Description::FromText(fixed.ToText()), fixed);
}

TEST(DescriptionTest, FromText_RefusesWhatIsNotTheTextOfADescription) {
    for (const std::string& text : {std::string(""),
                                    std::string(";"),
                                    std::string("int 64"),
                                    std::string("int64;"),
                                    std::string(";unit=V"),
                                    std::string("int64;unit="),
                                    std::string("int64;unit=V;unit=V"),
                                    std::string("int64;remark=x;unit=V"),
                                    std::string("int64;colour=red"),
                                    std::string("int64;unit=a b"),
                                    std::string("int64;unit=%"),
                                    std::string("int64;unit=%2"),
                                    std::string("int64;unit=%zz"),
                                    std::string("int64;unit=%0x"),
                                    std::string("int64;unit=%41"),
                                    std::string("int64;unit=%3b"),
                                    std::string("int64;unit=%0A"),
                                    std::string("int64;unit=\n"),
                                    std::string("int64;unit=a\0b", 14),
                                    std::string("int64;unit=\xFF"),
                                    std::string("int64;step=1/10"),
                                    std::string("fixed;step=1/1"),
                                    std::string("fixed;step=2/20"),
                                    std::string("fixed;step=0/1"),
                                    std::string("fixed;step=-1/10"),
                                    std::string("fixed;step=+1/10"),
                                    std::string("fixed;step=1/010"),
                                    std::string("fixed;step=1"),
                                    std::string("fixed;step=1/"),
                                    std::string("fixed;step=1/10/"),
                                    std::string("fixed;step=1/99999999999999999999"),
                                    std::string("int64;names=1:a"),
                                    std::string("enum;names="),
                                    std::string("enum;names=1"),
                                    std::string("enum;names=1:"),
                                    std::string("enum;names=2:a,1:b"),
                                    std::string("enum;names=1:a,1:b"),
                                    std::string("enum;names=1:a,2:a"),
                                    std::string("enum;names=1:a,"),
                                    std::string("enum;names=1:a,,2:b"),
                                    std::string("enum;names=01:a"),
                                    std::string("enum;names=-0:a"),
                                    std::string(1000000, 'x')}) {
        EXPECT_THROW(Description::FromText(text), std::invalid_argument) << text.substr(0, 100);
    }
}

TEST(DescriptionTest, Check_RefusesWhatIsTooLong) {
    const auto refuses = [](const auto& change) {
        Description description;
        description.type = "enum";
        change(description);
        EXPECT_THROW(description.Check(), std::invalid_argument);
        EXPECT_THROW(description.ToText(), std::invalid_argument);
    };
    refuses([](auto& it) { it.type.assign(Description::LongestType + 1, 'x'); });
    refuses([](auto& it) { it.unit.assign(Description::LongestUnit + 1, 'x'); });
    refuses([](auto& it) { it.remark.assign(Description::LongestRemark + 1, 'x'); });
    refuses([](auto& it) { it.names = {{0, std::string(Description::LongestName + 1, 'x')}}; });
    refuses([](auto& it) {
        for (std::size_t i = 0; i <= Description::MostNames; ++i) {
            it.names.push_back({static_cast<std::int64_t>(i), std::to_string(i)});
        }
    });
}

TEST(DescriptionTest, TheLongestDescription_HasATextThatIsRead) {
    Description longest;
    longest.type = "enum";
    longest.unit.assign(Description::LongestUnit, ';');
    longest.remark.assign(Description::LongestRemark, ' ');
    for (std::size_t i = 0; i < Description::MostNames; ++i) {
        std::string name(Description::LongestName, ',');
        name.replace(0, 3, std::to_string(100 + i));
        longest.names.push_back({Least + static_cast<std::int64_t>(i), name});
    }
    EXPECT_EQ(Description::FromText(longest.ToText()), longest);
}

TEST(DescriptionTest, AnyText_IsRefusedOrIsTheTextOfItsDescription) {
    std::mt19937 random(1);
    const auto below = [&](std::size_t end) { return std::uniform_int_distribution<std::size_t>(0, end - 1)(random); };
    const std::vector<std::string> seeds{MakeRich().ToText(), Codec<Mode>::Describe().ToText(),
                                         Codec<Fixed<-3, Volt>>::Describe().ToText(), "int64;unit=%3B;remark=%20"};
    const std::string alphabet = "%;,:=/-+019aAfFunitremks \n\xC3\xB0\xFF";
    int accepted = 0;
    for (int round = 0; round < 50000; ++round) {
        std::string text = seeds[below(seeds.size())];
        for (std::size_t changes = 1 + below(3); changes > 0 && !text.empty(); --changes) {
            const std::size_t at = below(text.size());
            switch (below(4)) {
            case 0:
                text.erase(at, 1 + below(4));
                break;
            case 1:
                text.insert(at, 1, alphabet[below(alphabet.size())]);
                break;
            case 2:
                text[at] = alphabet[below(alphabet.size())];
                break;
            default:
                text.insert(at, text.substr(below(text.size()), 1 + below(12)));
            }
        }
        try {
            const Description description = Description::FromText(text);
            ASSERT_EQ(description.ToText(), text);
            ++accepted;
        } catch (const std::invalid_argument&) {
        }
    }
    EXPECT_GT(accepted, 100);
}

TEST(CheckTypeTest, TypeStepAndUnit_MustBeEqual) {
    const std::vector<Description> all{Description(),
                                       Codec<std::int32_t>::Describe(),
                                       Codec<double>::Describe(),
                                       Codec<Mode>::Describe(),
                                       Codec<Fixed<-3>>::Describe(),
                                       Codec<Fixed<-2>>::Describe(),
                                       Codec<Fixed<3>>::Describe(),
                                       Codec<Fixed<-3, Volt>>::Describe()};
    for (const auto& published : all) {
        for (const auto& wanted : all) {
            if (published == wanted) {
                EXPECT_NO_THROW(CheckType(published, wanted));
            } else {
                EXPECT_THROW(CheckType(published, wanted), TypeMismatchError);
            }
        }
    }
}

TEST(CheckTypeTest, TheSentence_NamesBothTypes) {
    EXPECT_EQ(SentenceOf([] { CheckType(Codec<Fixed<-3, Volt>>::Describe(), Codec<double>::Describe()); }),
              "the values are published as fixed in steps of 1/1000 V, and expected as float64");
    EXPECT_EQ(SentenceOf([] { CheckType({}, Codec<Mode>::Describe()); }),
              "the values are published as int64, and expected as enum of 0 'off', 2 'cooling', 4 'heating'");
    try {
        CheckType({}, Codec<bool>::Describe());
        FAIL() << "nothing was thrown";
    } catch (const msgbus::Error& error) {
        EXPECT_EQ(error.Code(), -1);
    }
}

TEST(CheckTypeTest, PublishedNames_MustBeExpectedForTheSameValue) {
    const Description mode = Codec<Mode>::Describe();
    Description fewer = mode;
    fewer.names.pop_back();
    EXPECT_NO_THROW(CheckType(fewer, mode));
    EXPECT_THAT(SentenceOf([&] { CheckType(mode, fewer); }), HasSubstr("2 'cooling', without 4 'heating'"));
    Description renamed = mode;
    renamed.names[0].name = "stopped";
    EXPECT_THROW(CheckType(mode, renamed), TypeMismatchError);
    EXPECT_NO_THROW(CheckType(mode, Codec<Plain>::Describe())); // the subscriber knows no names
    Description crowded = mode;
    for (std::int64_t i = 5; i < 100; ++i) {
        crowded.names.push_back({i, "mode " + std::to_string(i)});
    }
    EXPECT_THAT(SentenceOf([&] { CheckType(crowded, mode); }), HasSubstr("'mode 9' and 90 others, and expected"));
}

TEST(CheckTypeTest, Remarks_AreNotCompared) {
    Description remarked;
    remarked.remark = "anything";
    EXPECT_NO_THROW(CheckType(remarked, {}));
    EXPECT_NE(remarked, Description());
}

} // namespace
