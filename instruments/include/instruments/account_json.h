#pragma once

#include "instruments/snapshot.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The account as JSON. Keys are lower case with underscores and end in their unit: _ns are nanoseconds, _bytes bytes,
// _unix_ns nanoseconds since 1970. Names and topics are escaped as in common/escape.h, so that they are UTF-8 and one
// line whatever their bytes. Schema: docs/observing_http.md.

namespace instruments {

/// The version of the JSON, in its key "version". Keys are added without a new one.
inline constexpr int JsonVersion = 1;

nlohmann::ordered_json StateToJson(const Snapshot& snapshot);
nlohmann::ordered_json TopicsToJson(const Snapshot& snapshot);
/// Returns: one topic; nothing when it is not known. `topic`: its raw bytes.
std::optional<nlohmann::ordered_json> TopicToJson(const Snapshot& snapshot, std::string_view topic);
nlohmann::ordered_json SubscribersToJson(const Snapshot& snapshot);
/// Returns: what a topic's last value means, as text; null where that is not known.
nlohmann::ordered_json DescribedValueToJson(std::string_view description, const std::optional<std::int64_t>& lastValue);
nlohmann::ordered_json EventToJson(const Event& event, std::int64_t clockOffset);

} // namespace instruments
