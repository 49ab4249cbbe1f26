#pragma once

#include "instruments/snapshot.h"

#include <cstddef>
#include <string>
#include <string_view>

// The account as metrics that a monitoring system collects: the text format of OpenMetrics 1.0. Base units, counters
// end in _total, all names begin with msgbus_. Names of topics and subscribers are escaped as in common/escape.h before
// they become label values. docs/observing_http.md lists the metrics.

namespace instruments {

/// So many topics and so many subscribers have metrics of their own: those with the most values. The others are summed
/// under the label value RestLabel, so that no client makes the collecting system keep any number of time series.
inline constexpr std::size_t MostMetricTopics = 1000;
inline constexpr std::size_t MostMetricSubscribers = 1000;
/// No escaped name is like this one: a backslash stands before '\\', 'n', 't' or 'x' there.
inline constexpr std::string_view RestLabel = "\\rest";

/// The media type of the text.
inline constexpr std::string_view OpenMetricsType = "application/openmetrics-text; version=1.0.0; charset=utf-8";

/// Returns: the text, with its end marker. Counters of the bus do not decrease while one server runs; those of a topic
/// begin again when it is remembered no more, and whatever is RestLabel's when another topic becomes part of it.
std::string ToOpenMetrics(const Snapshot& snapshot);

} // namespace instruments
