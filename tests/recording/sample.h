#pragma once

#include "recording/recording.h"

#include <cstdint>

// The values that readers of others are tried on; readers/check.mjs computes the same.

namespace recording::sample {

constexpr std::int64_t ValueAt(std::uint64_t index) {
    constexpr std::uint64_t golden = 0x9E3779B97F4A7C15; // spreads over all 64 bits
    return static_cast<std::int64_t>(index * golden);
}

constexpr Time TimeAt(std::uint64_t index) {
    return Time(std::chrono::nanoseconds(1'790'000'000'000'000'000 + static_cast<std::int64_t>(index) * 1'000));
}

/// Every third value is of the second channel.
constexpr bool IsOfSecond(std::uint64_t index) {
    return index % 3 == 0;
}

} // namespace recording::sample
