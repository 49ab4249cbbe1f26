#pragma once

#include "exit_status.h"
#include "instruments/snapshot.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace look {

/// `msgbus hz`
struct HzArguments {
    std::optional<std::string> account;
    std::string topic; ///< its bytes, or what is printed for them
    std::optional<std::uint64_t> count;
    std::optional<std::chrono::milliseconds> timeLimit;
    bool json = false;
};

/// How much was accepted for a topic until a moment.
struct Pace {
    std::string topic; ///< escaped as in common/escape.h
    instruments::Nanoseconds at = 0;
    std::uint64_t accepted = 0; ///< earlier publishers of the topic included
    std::optional<instruments::Nanoseconds> smallestGap;
    std::optional<instruments::Nanoseconds> largestGap;
};

/// Returns: nothing when the topic is not known.
std::optional<Pace> PaceOf(const instruments::Snapshot& snapshot, const std::string& topic);

/// Returns: values per second between the two; 0 when the second is of a newer server, or the topic was forgotten.
double RateBetween(const Pace& before, const Pace& after);

/// Runs `msgbus hz`. Throws: as List. Blocks: until the count or the time limit is reached, or the program is to end.
ExitStatus Hz(const HzArguments& arguments);

} // namespace look
