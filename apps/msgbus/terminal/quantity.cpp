#include "quantity.h"

#include <fmt/format.h>

#include <array>
#include <cmath>
#include <ctime>
#include <string_view>

namespace terminal {

namespace {

constexpr std::int64_t Second = 1'000'000'000;
constexpr std::int64_t Minute = 60 * Second;
constexpr std::int64_t Hour = 60 * Minute;
constexpr std::int64_t Day = 24 * Hour;

/// Three digits, of which none is a zero behind the point.
std::string ThreeDigits(double number) {
    return fmt::format("{:.3g}", number < 999.5 ? number : std::round(number));
}

} // namespace

std::string Duration(std::int64_t nanoseconds) {
    struct Unit {
        std::int64_t below;
        std::int64_t size;
        std::string_view name;
    };
    constexpr double roundsUp = 0.9995; // of what does, the next unit
    constexpr std::array<Unit, 4> units{
        {{1000, 1, "ns"}, {1'000'000, 1000, "us"}, {Second, 1'000'000, "ms"}, {Minute, Second, "s"}}};
    if (nanoseconds <= 0) {
        return "0s";
    }
    for (const auto& unit : units) {
        if (static_cast<double>(nanoseconds) < static_cast<double>(unit.below) * roundsUp) {
            return ThreeDigits(static_cast<double>(nanoseconds) / static_cast<double>(unit.size)) +
                   std::string(unit.name);
        }
    }
    const auto pair = [nanoseconds](std::int64_t large, char largeName, std::int64_t small, char smallName) {
        return fmt::format("{}{}{:02}{}", nanoseconds / large, largeName, nanoseconds % large / small, smallName);
    };
    return nanoseconds < Minute ? "1m00s"
           : nanoseconds < Hour ? pair(Minute, 'm', Second, 's')
           : nanoseconds < Day  ? pair(Hour, 'h', Minute, 'm')
                                : pair(Day, 'd', Hour, 'h');
}

std::string Age(std::int64_t now, std::int64_t at) {
    return at == 0 ? "-" : Duration(now - at);
}

std::string Rate(double perSecond) {
    return perSecond <= 0 ? "0" : fmt::format("{:.1f}", perSecond);
}

std::string Short(std::uint64_t count) {
    constexpr std::uint64_t asItIs = 100'000;
    if (count < asItIs) {
        return std::to_string(count);
    }
    double number = static_cast<double>(count);
    std::string_view unit = "kMGTPE";
    constexpr double roundsUp = 999.5;
    for (number /= 1000; number >= roundsUp; number /= 1000) {
        unit.remove_prefix(1);
    }
    return ThreeDigits(number) + unit.front();
}

std::string Bytes(std::uint64_t bytes) {
    constexpr double roundsUp = 999.5;
    double number = static_cast<double>(bytes);
    std::string_view units = " kMGTPE";
    for (; number >= roundsUp; number /= 1000) {
        units.remove_prefix(1);
    }
    return ThreeDigits(number) + (units.front() == ' ' ? "" : std::string(1, units.front())) + "B";
}

std::string UtcTime(std::int64_t at, std::int64_t clockOffset) {
    if (at == 0) {
        return "-";
    }
    constexpr std::int64_t millisecond = 1'000'000;
    std::int64_t unixNs = 0;
    std::tm parts{};
    if (__builtin_add_overflow(at, clockOffset, &unixNs) || unixNs < 0) {
        return "-"; // of a damaged account
    }
    const std::time_t seconds = unixNs / Second;
    ::gmtime_r(&seconds, &parts);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", parts.tm_year + 1900, parts.tm_mon + 1,
                       parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, unixNs % Second / millisecond);
}

} // namespace terminal
