#include "described_value.h"

#include "msgbus/codec.h"

#include <bit>
#include <exception>

namespace instruments {

namespace {

double ValueOf(const msgbus::Description& description, std::int64_t bits) {
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

} // namespace

double DescribedValue(std::string_view description, std::int64_t bits) noexcept {
    try {
        return description.empty() ? static_cast<double>(bits)
                                   : ValueOf(msgbus::Description::FromText(description), bits);
    } catch (const std::exception&) {
        return static_cast<double>(bits);
    }
}

} // namespace instruments
