#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace recordings {

/// A value that is out of range.
struct ValueCondition {
    std::string text; ///< as it was given
    std::string topic;
    bool isBelow = false; ///< it is true for values below the limit, else for those above
    long double limit = 0;

    /// `description`: of the topic; the limit is compared with what the value stands for by it, and with the integer
    /// where there is none.
    bool IsTrue(std::int64_t value, std::string_view description) const;
};

/// When a ring is written, beside the request by a signal and the end of the server.
struct Conditions {
    bool onLoss = false;
    bool onCut = false;
    std::vector<ValueCondition> onValues;
};

/// Parses "loss", "cut", "TOPIC<NUMBER" and "TOPIC>NUMBER"; the last '<' or '>' counts. Throws: std::invalid_argument.
Conditions ParseConditions(const std::vector<std::string>& words);

/// Lets one occurrence of a condition pass, and the next one only when the condition was false meanwhile and some time
/// has passed.
class Rearming final {
public:
    using Clock = std::chrono::steady_clock;

    explicit Rearming(std::chrono::milliseconds time) : pause(time) {}

    /// The condition is true or false at `now`. Returns: whether that is an occurrence which passes.
    bool Passes(bool isTrue, Clock::time_point now) noexcept;

private:
    std::chrono::milliseconds pause;
    bool wasFalse = true; ///< since the last one that has passed
    bool hasPassed = false;
    Clock::time_point passedAt;
};

} // namespace recordings
