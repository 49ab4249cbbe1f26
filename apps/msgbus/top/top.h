#pragma once

#include "exit_status.h"
#include "page.h"

#include <chrono>
#include <optional>
#include <string>

namespace top {

/// `msgbus top`
struct TopArguments {
    std::optional<std::string> account;
    std::chrono::milliseconds interval{1000};
    View view;
    bool once = false;
    bool json = false; ///< with `once` only
};

/// Runs `msgbus top`. Throws: instruments::NoAccountError; instruments::AccountError; std::system_error.
/// Blocks: until the user quits. Threads: before any other one starts.
ExitStatus Top(const TopArguments& arguments);

} // namespace top
