#pragma once

#include <cstdint>

namespace bench {

/// The times at which the values of an open loop are due: value `i` at the start + i / rate.
class Schedule final {
public:
    /// Requires: a rate of 1 to 10^9, so that the times differ.
    Schedule(std::int64_t firstDueNs, std::int64_t valuesPerSecond) : startNs(firstDueNs), rate(valuesPerSecond) {}

    std::int64_t Due(std::int64_t index) const { return startNs + index * SecondNs / rate; }

    /// Returns: the value that is due at `dueNs`, or the next one if none is.
    std::int64_t IndexOf(std::int64_t dueNs) const { return ((dueNs - startNs) * rate + SecondNs - 1) / SecondNs; }

private:
    static constexpr std::int64_t SecondNs = 1'000'000'000;

    const std::int64_t startNs;
    const std::int64_t rate;
};

} // namespace bench
