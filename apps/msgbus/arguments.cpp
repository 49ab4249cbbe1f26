#include "arguments.h"

#include "common/escape.h"

#include <charconv>
#include <cmath>
#include <iostream>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace {

constexpr std::size_t LongestDeliveredTopic = 1022; // bytes; the bus truncates the topic of a delivered message

constexpr std::pair<std::string_view, double> Units[] = {{"ms", 1}, {"s", 1e3}, {"", 1e3}, {"m", 6e4}, {"h", 3.6e6}};

std::int64_t ParseBits(std::string_view text) {
    std::uint64_t bits = 0;
    constexpr std::size_t prefix = 2;
    constexpr int hexadecimal = 16;
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data() + prefix, last, bits, hexadecimal);
    if (error == std::errc::result_out_of_range) {
        throw std::invalid_argument("'" + std::string(text) + "' does not fit into 64 bits");
    }
    if (error != std::errc() || end != last) {
        throw std::invalid_argument("'" + std::string(text) + "' is not a 64-bit integer");
    }
    return static_cast<std::int64_t>(bits);
}

} // namespace

void Say(std::string_view sentence) {
    std::string line("msgbus: ");
    common::AppendEscaped(line, sentence);
    line += '\n';
    std::cerr << line << std::flush;
}

std::int64_t ParseValue(std::string_view text) {
    if (text.starts_with("0x") || text.starts_with("0X")) {
        return ParseBits(text);
    }
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc::result_out_of_range) {
        throw std::invalid_argument("'" + std::string(text) + "' does not fit into 64 bits: values range from " +
                                    std::to_string(std::numeric_limits<std::int64_t>::min()) + " to " +
                                    std::to_string(std::numeric_limits<std::int64_t>::max()));
    }
    if (error != std::errc() || end != text.data() + text.size()) {
        throw std::invalid_argument("'" + std::string(text) + "' is not a 64-bit integer");
    }
    return value;
}

std::uint64_t ParseCount(std::string_view text) {
    std::uint64_t count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc() || end != text.data() + text.size() || count == 0) {
        throw std::invalid_argument("'" + std::string(text) + "' is not a count; it must be an integer of at least 1");
    }
    return count;
}

std::chrono::milliseconds ParseDuration(std::string_view text) {
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc()) {
        const std::string_view unit = text.substr(static_cast<std::size_t>(end - text.data()));
        for (const auto& [name, factorMs] : Units) {
            constexpr double longestMs = 1e12;
            if (unit == name && number * factorMs >= 1 && number * factorMs <= longestMs) {
                return std::chrono::milliseconds(std::llround(number * factorMs));
            }
        }
    }
    throw std::invalid_argument("'" + std::string(text) +
                                "' is not a duration; it must be from 1 ms to 31 years, for example 10, 1.5s or 200ms");
}

std::chrono::nanoseconds ParseRate(std::string_view text) {
    constexpr double lowest = 1 / 86400.0;
    constexpr double highest = 1e6;
    double rate = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), rate);
    if (error != std::errc() || end != text.data() + text.size() || !(rate >= lowest && rate <= highest)) {
        throw std::invalid_argument("'" + std::string(text) +
                                    "' is not a rate; it must be a number of values per second up to 1e6");
    }
    return std::chrono::nanoseconds(std::llround(1e9 / rate));
}

std::uint64_t ParseSize(std::string_view text) {
    constexpr std::pair<std::string_view, double> sizes[] = {{"", 1}, {"k", 1024}, {"M", 1048576}, {"G", 1073741824}};
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc()) {
        const std::string_view unit = text.substr(static_cast<std::size_t>(end - text.data()));
        for (const auto& [name, factor] : sizes) {
            constexpr double largest = 1e18;
            if (unit == name && number * factor >= 1 && number * factor <= largest) {
                return static_cast<std::uint64_t>(number * factor);
            }
        }
    }
    throw std::invalid_argument("'" + std::string(text) +
                                "' is not a size; it must be at least 1 byte, such as 500k or 10G");
}

bool IsSize(std::string_view text) {
    return text.ends_with('k') || text.ends_with('M') || text.ends_with('G');
}

void RequireTopic(const std::string& topic) {
    if (topic.empty()) {
        throw std::invalid_argument("the topic is empty");
    }
}

void WarnAboutCutTopic(const std::string& topic) {
    if (topic.size() > LongestDeliveredTopic) {
        Say("warning: subscribers receive only the first " + std::to_string(LongestDeliveredTopic) +
            " bytes of topic '" + topic.substr(0, 20) + "...'");
    }
}
