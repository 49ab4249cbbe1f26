#include "publish/value_source.h"

#include "arguments.h"

#include <chrono>
#include <string_view>

namespace publish {

namespace {

std::string_view WithoutBlanks(std::string_view text) {
    constexpr std::string_view blanks = " \t\v\f\r";
    const auto first = text.find_first_not_of(blanks);
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

} // namespace

std::optional<std::int64_t> ListedValues::Next() {
    if (IsAtEnd()) {
        return std::nullopt;
    }
    return list[next++ % list.size()];
}

std::string ListedValues::Place() const {
    if (repetitions != Forever && Count() == 1) {
        return "";
    }
    return "value " + std::to_string(next) + (repetitions == Forever ? ": " : " of " + std::to_string(Count()) + ": ");
}

std::optional<std::int64_t> InputValues::Next() {
    while (true) {
        ++number;
        const auto line = lines.Next();
        if (!line) {
            return std::nullopt;
        }
        const auto text = WithoutBlanks(*line);
        if (!text.empty() || empty == EmptyLines::AreErrors) {
            return ParseValue(text);
        }
    }
}

std::optional<std::int64_t> ClockReadings::Next() {
    if (IsAtEnd()) {
        return std::nullopt;
    }
    ++next;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

} // namespace publish
