#pragma once

#include "msgbus/error.h"

#include <array>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <ratio>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

// Values that are not bare integers. The bus carries 64 bits per message and does not look at them; a codec turns a
// program's type into them and back. msgbus/typed.h has publishers and subscribers of such a type.

namespace msgbus {

/// One value of an enum, as it is published, and what the program calls it.
struct NamedValue {
    std::int64_t value = 0; ///< as it is published
    std::string name;       ///< as the program calls it

    friend bool operator==(const NamedValue& one, const NamedValue& other) {
        return one.value == other.value && one.name == other.name;
    }
    friend bool operator!=(const NamedValue& one, const NamedValue& other) { return !(one == other); }
};

/// What the 64 bits of a topic's values mean. A publisher without a description publishes what Description{} says.
/// Threads: as of a struct.
struct __attribute__((visibility("default"))) Description {
    static constexpr std::size_t LongestType = 64;    ///< in bytes
    static constexpr std::size_t LongestUnit = 32;    ///< in bytes
    static constexpr std::size_t LongestName = 64;    ///< in bytes, of one of the names
    static constexpr std::size_t LongestRemark = 256; ///< in bytes
    static constexpr std::size_t MostNames = 256;     ///< of an enum

    /// One of
    /// - "int8" to "int64", "uint8" to "uint64", "bool", "enum": the number; a "uint64" in two's complement;
    /// - "float32", "float64": the bit pattern of IEEE 754, a "float32" in the lower half;
    /// - "fixed": a number of steps;
    /// - "time": nanoseconds since the epoch of Unix;
    /// or the name of a program's own type: letters, digits, '.', '_' and '-'.
    std::string type = "int64";
    /// Of "fixed" only: the step is this fraction, in lowest terms.
    std::int64_t numerator = 1;
    std::int64_t denominator = 1; ///< of that fraction
    /// What the number counts; may be empty.
    std::string unit{};
    /// Of "enum" only: the names of its values, in the order of the values; none if the enum has no names.
    std::vector<NamedValue> names{};
    /// One line for people; may be empty.
    std::string remark{};

    /// Throws: std::invalid_argument, with what is wrong: a length, a character that is not allowed, a control
    /// character or bytes that are not UTF-8 in `unit`, `names` or `remark`, a member that the type does not have.
    void Check() const;

    /// Returns: a line of printable characters without spaces around it, for example "fixed;step=1/1000;unit=V".
    /// Throws: as Check.
    std::string ToText() const;

    /// Returns: the description whose ToText is `text`; there is one text for each description.
    /// Throws: std::invalid_argument, whatever the bytes are.
    static Description FromText(std::string_view text);

    friend bool operator==(const Description& one, const Description& other) {
        return one.type == other.type && one.numerator == other.numerator && one.denominator == other.denominator &&
               one.unit == other.unit && one.names == other.names && one.remark == other.remark;
    }
    friend bool operator!=(const Description& one, const Description& other) { return !(one == other); }
};

/// Compares what a publisher publishes with what a subscriber wants: type, step and unit must be equal, and of an enum
/// that the subscriber has names for, every published name must be one of them, for the same value. Remarks are not
/// compared.
/// Throws: TypeMismatchError.
__attribute__((visibility("default"))) void CheckType(const Description& published, const Description& wanted);

namespace detail {

/// Throws: std::out_of_range: `bits` stands for no value of `type`.
[[noreturn, gnu::visibility("default")]] void ThrowNoValue(std::string_view type, std::int64_t bits);
/// Throws: std::out_of_range, with this sentence.
[[noreturn, gnu::visibility("default")]] void ThrowOutOfRange(const char* sentence);
/// Throws: std::overflow_error.
[[noreturn, gnu::visibility("default")]] void ThrowOverflow();

template <typename>
inline constexpr bool AlwaysFalse = false;

template <typename Integer>
constexpr const char* IntegerName() noexcept {
    static_assert(sizeof(Integer) <= sizeof(std::int64_t), "the bus carries 64 bits");
    constexpr std::array<const char*, 4> signedNames{"int8", "int16", "int32", "int64"};
    constexpr std::array<const char*, 4> unsignedNames{"uint8", "uint16", "uint32", "uint64"};
    constexpr std::size_t index = sizeof(Integer) == 1 ? 0 : sizeof(Integer) == 2 ? 1 : sizeof(Integer) == 4 ? 2 : 3;
    return std::is_signed_v<Integer> ? signedNames[index] : unsignedNames[index];
}

/// Returns: whether `bits` stand for a value of this integer type, or of bool.
template <typename Integer>
constexpr bool Holds(std::int64_t bits) noexcept {
    if constexpr (sizeof(Integer) < sizeof(std::int64_t)) {
        return bits >= static_cast<std::int64_t>(std::numeric_limits<Integer>::min()) &&
               bits <= static_cast<std::int64_t>(std::numeric_limits<Integer>::max());
    } else {
        return true;
    }
}

template <typename To, typename From>
To CopyBits(const From& from) noexcept {
    static_assert(sizeof(To) == sizeof(From));
    To to{};
    std::memcpy(&to, &from, sizeof(to));
    return to;
}

constexpr std::intmax_t PowerOfTen(int exponent) {
    std::intmax_t power = 1;
    for (; exponent > 0; --exponent) {
        power *= 10; // of a constant: an overflow does not compile
    }
    return power;
}

} // namespace detail

/// A unit for FixedPoint has a member like this one; numbers of different units are of different types.
struct NoUnit {
    static constexpr const char* Name = ""; ///< as Description::unit
};

/// A decimal or another fraction, held as a whole number of steps of `Step`, a std::ratio:
///
///     struct Volt { static constexpr const char* Name = "V"; };
///     using Voltage = msgbus::Fixed<-3, Volt>; // thousandths of a volt
///
/// Threads: as of a number.
template <typename Step, typename Unit = NoUnit>
class FixedPoint final {
public:
    static constexpr std::intmax_t Numerator = Step::num;   ///< of the step
    static constexpr std::intmax_t Denominator = Step::den; ///< of the step
    static_assert(Numerator > 0, "a step is greater than zero");

    constexpr FixedPoint() noexcept = default;

    /// Returns: the number of `steps` steps.
    static constexpr FixedPoint FromSteps(std::int64_t steps) noexcept { return FixedPoint(steps); }

    /// Returns: the nearest number of steps; half a step is rounded away from zero. As exact as the arithmetic of
    /// double is. Throws: std::out_of_range when 64 bits do not hold it, or `number` is not a number.
    static FixedPoint FromDouble(double number) {
        constexpr double limit = 9223372036854775808.0; // 2 to the 63rd
        const double rounded = std::round(number * static_cast<double>(Denominator) / static_cast<double>(Numerator));
        if (!(rounded >= -limit && rounded < limit)) { // so that NaN fails too
            detail::ThrowOutOfRange("the number is out of the range of its fixed-point type");
        }
        return FixedPoint(static_cast<std::int64_t>(rounded));
    }

    /// Returns: how many steps it is.
    constexpr std::int64_t Steps() const noexcept { return steps; }

    /// Returns: the nearest double; beyond 2 to the 53rd steps it is not exact.
    constexpr double ToDouble() const noexcept {
        return static_cast<double>(steps) * static_cast<double>(Numerator) / static_cast<double>(Denominator);
    }

    /// Throws: std::overflow_error, as the next two.
    friend constexpr FixedPoint operator+(FixedPoint one, FixedPoint other) {
        std::int64_t sum = 0;
        if (__builtin_add_overflow(one.steps, other.steps, &sum)) {
            detail::ThrowOverflow();
        }
        return FixedPoint(sum);
    }
    friend constexpr FixedPoint operator-(FixedPoint one, FixedPoint other) {
        std::int64_t difference = 0;
        if (__builtin_sub_overflow(one.steps, other.steps, &difference)) {
            detail::ThrowOverflow();
        }
        return FixedPoint(difference);
    }
    friend constexpr FixedPoint operator-(FixedPoint number) { return FixedPoint() - number; }

    friend constexpr bool operator==(FixedPoint one, FixedPoint other) noexcept { return one.steps == other.steps; }
    friend constexpr bool operator!=(FixedPoint one, FixedPoint other) noexcept { return one.steps != other.steps; }
    friend constexpr bool operator<(FixedPoint one, FixedPoint other) noexcept { return one.steps < other.steps; }
    friend constexpr bool operator>(FixedPoint one, FixedPoint other) noexcept { return one.steps > other.steps; }
    friend constexpr bool operator<=(FixedPoint one, FixedPoint other) noexcept { return one.steps <= other.steps; }
    friend constexpr bool operator>=(FixedPoint one, FixedPoint other) noexcept { return one.steps >= other.steps; }

private:
    explicit constexpr FixedPoint(std::int64_t count) noexcept : steps(count) {}

    std::int64_t steps = 0;
};

/// In steps of 10 to the power of `Exponent`, -18 to 18.
template <int Exponent, typename Unit = NoUnit>
using Fixed = FixedPoint<std::ratio<detail::PowerOfTen(Exponent), detail::PowerOfTen(-Exponent)>, Unit>;

/// One name of an enum's value, see EnumNames.
template <typename Enum>
struct EnumName {
    Enum value;       ///< one of the enum's
    const char* name; ///< as Description::names has it
};

/// The names of an enum. Specialize it, and its codec takes no other values, and describes these:
///
///     template <>
///     struct msgbus::EnumNames<Mode> {
///         static constexpr msgbus::EnumName<Mode> List[] = {{Mode::Off, "off"}, {Mode::Heating, "heating"}};
///     };
template <typename Enum>
struct EnumNames {};

namespace detail {

template <typename Enum, typename = void>
inline constexpr bool HasNames = false;
template <typename Enum>
inline constexpr bool HasNames<Enum, std::void_t<decltype(EnumNames<Enum>::List)>> = true;

/// Returns: `names` in the order of their values. Throws: std::invalid_argument as Description::Check.
__attribute__((visibility("default"))) Description DescribeEnum(std::vector<NamedValue> names);

} // namespace detail

/// How a type travels. There are codecs for every integer type, bool, every enum, float, double, FixedPoint, and times
/// of std::chrono::system_clock. Specialize it for a type of your own, with these three:
/// - `static std::int64_t Encode(T)`; throws std::out_of_range for a value that cannot be sent;
/// - `static T Decode(std::int64_t)`; throws std::out_of_range when no value is encoded like this;
/// - `static Description Describe()`.
/// Threads: any.
template <typename T, typename Enable = void>
struct Codec {
    static_assert(detail::AlwaysFalse<T>, "there is no codec for this type: specialize msgbus::Codec");
};

/// Integers travel as they are, 64 bits without a sign in two's complement.
template <typename T>
struct Codec<T, std::enable_if_t<std::is_integral_v<T>>> {
    static constexpr std::int64_t Encode(T value) noexcept { return static_cast<std::int64_t>(value); }

    static constexpr T Decode(std::int64_t bits) {
        if (!detail::Holds<T>(bits)) {
            detail::ThrowNoValue(detail::IntegerName<T>(), bits);
        }
        return static_cast<T>(bits);
    }

    static Description Describe() {
        Description description;
        description.type = detail::IntegerName<T>();
        return description;
    }
};

/// 0 or 1.
template <>
struct Codec<bool> {
    static constexpr std::int64_t Encode(bool value) noexcept { return value ? 1 : 0; }

    static constexpr bool Decode(std::int64_t bits) {
        if (!detail::Holds<bool>(bits)) {
            detail::ThrowNoValue("bool", bits);
        }
        return bits == 1;
    }

    static Description Describe() {
        Description description;
        description.type = "bool";
        return description;
    }
};

/// The number of the value. With EnumNames only what has a name is sent and received; else all that the underlying
/// type holds.
template <typename T>
struct Codec<T, std::enable_if_t<std::is_enum_v<T>>> {
    static constexpr std::int64_t Encode(T value) {
        const auto bits = static_cast<std::int64_t>(static_cast<std::underlying_type_t<T>>(value));
        Require(bits);
        return bits;
    }

    static constexpr T Decode(std::int64_t bits) {
        Require(bits);
        return static_cast<T>(bits);
    }

    static Description Describe() {
        std::vector<NamedValue> names;
        if constexpr (detail::HasNames<T>) {
            for (const auto& each : EnumNames<T>::List) {
                names.push_back({Encode(each.value), each.name});
            }
        }
        return detail::DescribeEnum(std::move(names));
    }

private:
    static constexpr void Require(std::int64_t bits) {
        if (!IsValue(bits)) {
            detail::ThrowNoValue("enum", bits);
        }
    }

    static constexpr bool IsValue(std::int64_t bits) noexcept {
        using Underlying = std::underlying_type_t<T>;
        if constexpr (detail::HasNames<T>) {
            for (const auto& each : EnumNames<T>::List) {
                if (static_cast<std::int64_t>(static_cast<Underlying>(each.value)) == bits) {
                    return true;
                }
            }
            return false;
        } else {
            return detail::Holds<Underlying>(bits);
        }
    }
};

/// The bit pattern: infinities, the sign of zero and what a NaN carries arrive too.
template <>
struct Codec<double> {
    static_assert(std::numeric_limits<double>::is_iec559);

    static std::int64_t Encode(double value) noexcept { return detail::CopyBits<std::int64_t>(value); }
    static double Decode(std::int64_t bits) noexcept { return detail::CopyBits<double>(bits); }

    static Description Describe() {
        Description description;
        description.type = "float64";
        return description;
    }
};

template <>
struct Codec<float> {
    static_assert(std::numeric_limits<float>::is_iec559);

    static std::int64_t Encode(float value) noexcept { return detail::CopyBits<std::uint32_t>(value); }

    static float Decode(std::int64_t bits) {
        if (!detail::Holds<std::uint32_t>(bits)) {
            detail::ThrowNoValue("float32", bits);
        }
        return detail::CopyBits<float>(static_cast<std::uint32_t>(bits));
    }

    static Description Describe() {
        Description description;
        description.type = "float32";
        return description;
    }
};

/// The number of steps.
template <typename Step, typename Unit>
struct Codec<FixedPoint<Step, Unit>> {
    using Number = FixedPoint<Step, Unit>;

    static constexpr std::int64_t Encode(Number value) noexcept { return value.Steps(); }
    static constexpr Number Decode(std::int64_t bits) noexcept { return Number::FromSteps(bits); }

    static Description Describe() {
        Description description;
        description.type = "fixed";
        description.numerator = Number::Numerator;
        description.denominator = Number::Denominator;
        description.unit = Unit::Name;
        return description;
    }
};

/// Nanoseconds since the epoch, from the year 1677 to 2262; other times are not sent. A type with a coarser resolution
/// receives the last of its times that is not after the one that was sent.
template <typename Duration>
struct Codec<std::chrono::time_point<std::chrono::system_clock, Duration>> {
    using Time = std::chrono::time_point<std::chrono::system_clock, Duration>;
    using Rep = typename Duration::rep;
    using Factor = std::ratio_divide<typename Duration::period, std::nano>;
    static_assert(std::is_integral_v<Rep> && std::is_signed_v<Rep>, "times are counted in integers with a sign");
    static_assert(Factor::den == 1, "the resolution of a time is a whole number of nanoseconds");

    static constexpr std::int64_t Encode(Time value) {
        std::int64_t nanoseconds = 0;
        if (__builtin_mul_overflow(static_cast<std::int64_t>(value.time_since_epoch().count()),
                                   static_cast<std::int64_t>(Factor::num), &nanoseconds)) {
            detail::ThrowOutOfRange("the time is before 1677 or after 2262 and cannot be sent");
        }
        return nanoseconds;
    }

    static constexpr Time Decode(std::int64_t bits) {
        const std::int64_t count = bits / Factor::num - (bits % Factor::num < 0 ? 1 : 0);
        if (!detail::Holds<Rep>(count)) {
            detail::ThrowNoValue("time", bits);
        }
        return Time(Duration(static_cast<Rep>(count)));
    }

    static Description Describe() {
        Description description;
        description.type = "time";
        description.unit = "ns";
        return description;
    }
};

} // namespace msgbus
