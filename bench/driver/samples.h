#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

/// CLOCK_MONOTONIC, which is the same for all processes of a machine.
inline std::int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

/// Durations in ns. Every one is kept, so that percentiles are exact.
class Samples final {
public:
    explicit Samples(std::size_t expected) { all.reserve(expected); }

    void Add(std::int64_t ns) { all.push_back(ns); }
    void Merge(const Samples& other) { all.insert(all.end(), other.all.begin(), other.all.end()); }
    std::size_t Count() const { return all.size(); }

    /// Returns: the members `p50`, `p99`, `max` and `mean` of a JSON object, in ns; nulls without samples.
    std::string Json() {
        if (all.empty()) {
            return R"("p50":null,"p99":null,"max":null,"mean":null)";
        }
        std::sort(all.begin(), all.end());
        double sum = 0;
        for (const auto ns : all) {
            sum += static_cast<double>(ns);
        }
        return "\"p50\":" + std::to_string(At(50)) + ",\"p99\":" + std::to_string(At(99)) +
               ",\"max\":" + std::to_string(all.back()) +
               ",\"mean\":" + std::to_string(sum / static_cast<double>(all.size()));
    }

private:
    std::int64_t At(std::size_t percent) const { return all[(all.size() - 1) * percent / 100]; }

    std::vector<std::int64_t> all;
};

} // namespace bench
