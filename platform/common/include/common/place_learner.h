#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace common {

/// Learns where a thread should sleep, from how long it takes to run after it was woken: confined to the CPU of the
/// thread that wakes it, or wherever the scheduler puts it. The answer differs between machines (what a wake-up across
/// CPUs costs) and between moments (what else runs on that CPU). So both places are tried, the better one is used, and
/// the other is tried again, less often each time that it turns out worse.
///
/// Threads: one at a time.
class PlaceLearner final {
public:
    enum class Place : std::size_t { Free, Confined };

    /// Wake-ups that come closer than this are no reason to move a thread.
    static constexpr std::chrono::milliseconds LongGap{1};

    /// Returns: where to sleep this time.
    Place Choose() noexcept {
        if (samples[Index(Place::Free)] < SamplesWanted || means[Index(Place::Free)] < CheapDelay.count()) {
            return Place::Free;
        }
        if (samples[Index(Place::Confined)] < SamplesWanted) {
            return Place::Confined;
        }
        if (++occasions < retryAfter) {
            return Better();
        }
        occasions = 0;
        retryAfter = std::min(retryAfter * 2, MaxRetry);
        return Better() == Place::Free ? Place::Confined : Place::Free;
    }

    /// The thread slept in `place` and ran `delay` after it was woken.
    void Note(Place place, std::chrono::nanoseconds delay) noexcept {
        const Place before = Better();
        auto& mean = means[Index(place)];
        const auto longest = LongestCounted(place) * std::max(mean, CheapDelay.count());
        const auto bounded = std::clamp<std::chrono::nanoseconds::rep>(delay.count(), 0, longest);
        auto& count = samples[Index(place)];
        count = std::min(count + 1, SamplesWanted);
        mean += (bounded - mean) / static_cast<std::chrono::nanoseconds::rep>(count);
        if (Better() != before) {
            retryAfter = MinRetry;
        }
    }

private:
    static constexpr std::uint32_t SamplesWanted = 8; ///< also the weight of the past in a mean
    static constexpr std::uint32_t MinRetry = 64;
    static constexpr std::uint32_t MaxRetry = 4096;
    static constexpr std::chrono::nanoseconds CheapDelay{15'000}; ///< there is little to gain below, and it costs 3 us

    /// What a delay counts at most, as a multiple of the mean. A thread that has to wait for a CPU now and then is no
    /// reason to confine it, and a reason to free it only if that happens again soon.
    static constexpr std::chrono::nanoseconds::rep LongestCounted(Place place) { return place == Place::Free ? 2 : 8; }

    static constexpr std::size_t Index(Place place) { return static_cast<std::size_t>(place); }

    Place Better() const noexcept {
        return means[Index(Place::Confined)] * 4 < means[Index(Place::Free)] * 3 ? Place::Confined : Place::Free;
    }

    std::array<std::chrono::nanoseconds::rep, 2> means{};
    std::array<std::uint32_t, 2> samples{};
    std::uint32_t occasions = 0;
    std::uint32_t retryAfter = MinRetry;
};

} // namespace common
