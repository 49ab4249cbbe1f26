#pragma once

#include "exit_status.h"
#include "instruments/snapshot.h"

#include <optional>
#include <string>

namespace diagnosis {

/// `msgbus autopsy`
struct AutopsyArguments {
    std::optional<std::string> account;
    bool isPrevious = false; ///< the account of the server before
    bool json = false;
};

/// Returns: the last moment of which the account knows: of a server that runs, when it was read.
instruments::Nanoseconds EndOf(const instruments::Snapshot& snapshot);

/// Returns: what an account shows of the end of its server: its state, whether the account adds up, which subscribers
/// were behind, what was lost and why, errors, threads, the last events. Times without a date are before EndOf.
std::string AutopsyText(const instruments::Snapshot& snapshot);

/// Runs `msgbus autopsy`. Throws: instruments::NoAccountError; instruments::AccountError; std::system_error.
ExitStatus Autopsy(const AutopsyArguments& arguments);

} // namespace diagnosis
