#pragma once

#include "instruments/snapshot.h"

#include <chrono>
#include <string>

namespace msgbus_server {

/// Returns: a bus in one line for its operator, such as "12 topics, 40 subscribers, 1.2 k values/s, 0 lost". Topics:
/// those with a publisher or a subscriber. Values: accepted, on average over the last ten seconds. Lost: dropped since
/// the server started, but for what subscribers left unread when they unregistered.
std::string StatusLine(const instruments::Snapshot& snapshot);

/// Returns: what a bus has done, such as "served for 2 h 5 min: 1.2 k values accepted, 1.1 k delivered, 3 lost". Lost:
/// as above.
std::string TotalsLine(const instruments::Snapshot& snapshot, std::chrono::seconds served);

/// Returns: "45 s", "3 min", "2 h 5 min", "3 d 4 h".
std::string DurationText(std::chrono::seconds duration);

} // namespace msgbus_server
