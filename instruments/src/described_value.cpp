#include "instruments/described_value.h"

#include "msgbus/codec.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <exception>
#include <stdexcept>

namespace instruments {

namespace {

using msgbus::Description;

double ValueOf(const Description& description, std::int64_t bits) {
    const auto number = static_cast<double>(bits);
    if (description.type == "float64") {
        return std::bit_cast<double>(bits);
    }
    if (description.type == "float32") {
        return std::bit_cast<float>(static_cast<std::uint32_t>(bits));
    }
    if (description.type == "uint64") {
        return static_cast<double>(static_cast<std::uint64_t>(bits));
    }
    if (description.type == "fixed") {
        return number * static_cast<double>(description.numerator) / static_cast<double>(description.denominator);
    }
    if (description.type == "time") {
        constexpr double nanosecondsPerSecond = 1e9;
        return number / nanosecondsPerSecond;
    }
    return number;
}

/// Decimal fractions with as many digits as their steps have, others as exactly as the arithmetic is.
std::string FixedText(const Description& description, std::int64_t steps) {
    const auto number = static_cast<long double>(steps) * static_cast<long double>(description.numerator) /
                        static_cast<long double>(description.denominator);
    int digits = 0;
    std::int64_t rest = description.denominator;
    for (constexpr std::int64_t base = 10; rest % base == 0; rest /= base) {
        ++digits;
    }
    return rest == 1 ? fmt::format("{:.{}f}", number, digits) : fmt::format("{}", static_cast<double>(number));
}

std::string EnumText(const Description& description, std::int64_t bits) {
    const auto& names = description.names;
    const auto found = std::find_if(names.begin(), names.end(), [=](const auto& each) { return each.value == bits; });
    return found != names.end() ? found->name : names.empty() ? std::to_string(bits) : "";
}

std::string TimeText(std::int64_t nanoseconds) {
    return fmt::format("{:%FT%T}Z",
                       std::chrono::sys_time<std::chrono::nanoseconds>(std::chrono::nanoseconds(nanoseconds)));
}

std::string TextOf(const Description& description, std::int64_t bits) {
    const std::string& type = description.type;
    if (type == "bool") {
        return bits == 0 ? "false" : bits == 1 ? "true" : "";
    }
    if (type == "enum") {
        return EnumText(description, bits);
    }
    if (type == "time") {
        return TimeText(bits);
    }
    if (type == "fixed") {
        return FixedText(description, bits);
    }
    if (type == "uint64") {
        return std::to_string(static_cast<std::uint64_t>(bits));
    }
    if (type == "float32") {
        return fmt::format("{}", static_cast<float>(ValueOf(description, bits)));
    }
    if (type == "float64") {
        return fmt::format("{}", ValueOf(description, bits));
    }
    return std::to_string(bits);
}

} // namespace

double DescribedValue(std::string_view description, std::int64_t bits) noexcept {
    try {
        return description.empty() ? static_cast<double>(bits) : ValueOf(Description::FromText(description), bits);
    } catch (const std::exception&) {
        return static_cast<double>(bits);
    }
}

std::string DescribedText(std::string_view text, std::int64_t bits) {
    if (text.empty()) {
        return {};
    }
    try {
        const auto description = Description::FromText(text);
        const std::string value = TextOf(description, bits);
        const bool hasUnit = !value.empty() && !description.unit.empty() && description.type != "time";
        return hasUnit ? value + ' ' + description.unit : value;
    } catch (const std::invalid_argument&) { // a newer server has accepted it
        return {};
    }
}

} // namespace instruments
