#include "recordings/condition.h"

#include "instruments/described_value.h"

#include <charconv>
#include <cmath>
#include <optional>
#include <stdexcept>

namespace recordings {

namespace {

std::optional<long double> ParseNumber(std::string_view text) {
    long double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(number)) {
        return std::nullopt;
    }
    return number;
}

ValueCondition ParseValueCondition(const std::string& word) {
    const std::size_t sign = word.find_last_of("<>");
    const auto limit = sign == std::string::npos ? std::nullopt : ParseNumber(std::string_view(word).substr(sign + 1));
    if (!limit || sign == 0) {
        throw std::invalid_argument("--on: '" + word +
                                    "' is not a condition; there is loss, cut, 'TOPIC<NUMBER' and 'TOPIC>NUMBER'");
    }
    return {word, word.substr(0, sign), word[sign] == '<', *limit};
}

} // namespace

bool ValueCondition::IsTrue(std::int64_t value, std::string_view description) const {
    // A long double has every integer of 64 bits.
    const long double number = description.empty()
                                   ? static_cast<long double>(value)
                                   : static_cast<long double>(instruments::DescribedValue(description, value));
    return isBelow ? number < limit : number > limit;
}

Conditions ParseConditions(const std::vector<std::string>& words) {
    Conditions conditions;
    for (const auto& word : words) {
        if (word == "loss") {
            conditions.onLoss = true;
        } else if (word == "cut") {
            conditions.onCut = true;
        } else {
            conditions.onValues.push_back(ParseValueCondition(word));
        }
    }
    return conditions;
}

bool Rearming::Passes(bool isTrue, Clock::time_point now) noexcept {
    if (!isTrue) {
        wasFalse = true;
        return false;
    }
    if (!wasFalse || (hasPassed && now - passedAt < pause)) {
        return false;
    }
    wasFalse = false;
    hasPassed = true;
    passedAt = now;
    return true;
}

} // namespace recordings
