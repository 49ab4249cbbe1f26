#pragma once

#include "exit_status.h"
#include "find.h"
#include "instruments/snapshot.h"

#include <optional>
#include <string>

namespace look {

/// `msgbus info`
struct InfoArguments {
    std::optional<std::string> account;
    std::string word; ///< a topic, the name of a subscriber, or an id
    bool json = false;
};

/// Returns: all that is known about what was found.
std::string InfoText(const instruments::Snapshot& snapshot, const Found& found);

/// Runs `msgbus info`. Throws: as List.
ExitStatus Info(const InfoArguments& arguments);

} // namespace look
