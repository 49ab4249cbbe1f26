#pragma once

#include "instruments/snapshot.h"

#include <string>

namespace msgbus_server {

/// Returns: a bus in one line for its operator, such as "12 topics, 40 subscribers, 1.2 k values/s, 0 lost". Topics:
/// those with a publisher or a subscriber. Values: accepted, on average over the last ten seconds. Lost: dropped since
/// the server started, but for what subscribers left unread when they unregistered.
std::string StatusLine(const instruments::Snapshot& snapshot);

} // namespace msgbus_server
