#pragma once

#include "exit_status.h"
#include "instruments/snapshot.h"

#include <chrono>
#include <optional>
#include <string>

namespace look {

/// `msgbus get`
struct GetArguments {
    std::optional<std::string> account;
    std::string topic; ///< its bytes, or what is printed for them
    std::optional<std::chrono::milliseconds> timeLimit;
    bool json = false;
};

/// Returns: the line "VALUE AGE", with what the value means behind it where that is known, or the same as JSON; nothing
/// when the topic has no value.
std::optional<std::string> LastValueLine(const instruments::Snapshot& snapshot, const std::string& topic, bool json);

/// Runs `msgbus get`. Throws: as List. Blocks: until there is a value, but not beyond the time limit.
ExitStatus Get(const GetArguments& arguments);

} // namespace look
