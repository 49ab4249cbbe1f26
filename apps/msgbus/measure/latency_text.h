#pragma once

#include "common/histogram.h"

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <vector>

namespace measure {

/// A quantile that is reported, and what it is called.
struct Quantile {
    double share;
    const char* name; ///< also of the member in JSON
};

inline constexpr Quantile Quantiles[] = {{0.5, "p50"}, {0.9, "p90"}, {0.99, "p99"}, {0.999, "p99.9"}};

/// Returns: least, the quantiles and greatest, as the cells of a table; "-" of nothing.
std::vector<std::string> LatencyCells(const common::Histogram& histogram);

/// Returns: the names above these cells.
std::vector<std::string> LatencyHeadings();

/// Returns: count, min_ns, p50_ns ... max_ns.
nlohmann::ordered_json LatencyJson(const common::Histogram& histogram);

/// Returns: a bar for each doubling of the duration, a line each.
std::string Bars(const common::Histogram& histogram);

} // namespace measure
