#pragma once

#include "exit_status.h"
#include "instruments/snapshot.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace look {

/// `msgbus watch`
struct WatchArguments {
    std::optional<std::string> account;
    std::optional<std::uint64_t> count;
    std::optional<std::chrono::milliseconds> timeLimit;
    bool all = false; ///< also those events that the account holds already
    bool json = false;
};

/// Returns: an event as a line without its line feed: time, kind, and what else is known as NAME=TEXT. The name, which
/// may have spaces, comes last. `clockOffset`: as of instruments::ServerAccount.
std::string EventText(const instruments::Event& event, std::int64_t clockOffset);

/// Runs `msgbus watch`. Throws: as List. Blocks: until the count or the time limit is reached, or the program is to
/// end.
ExitStatus Watch(const WatchArguments& arguments);

} // namespace look
