#pragma once

#include "action.h"
#include "bus_options.h"
#include "recording/recording.h"

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <variant>

namespace recordings {

/// A place in a recording: so long behind its begin, or a time.
using Place = std::variant<std::chrono::nanoseconds, recording::Time>;

/// Parses a duration, or a time such as 2026-11-23T06:05:01.5Z. Throws: std::invalid_argument.
Place ParsePlace(const std::string& word);

/// `msgbus play`
struct PlayArguments {
    BusAccess access;
    std::string file;
    std::optional<double> speed = 1.0;         ///< nothing: as fast as it goes
    std::map<std::string, std::string> topics; ///< other names
    bool loops = false;
    std::optional<Place> from;
    std::optional<Place> to;
};

/// Runs `msgbus play`. Throws: what the client library throws; recording::RecordingError; std::system_error.
ExitStatus Play(const PlayArguments& arguments);

/// Adds the command. The action is put into `chosen`, which must outlive the parsing, when it is parsed.
void AddPlayCommand(command_line::Command& program, Action& chosen);

} // namespace recordings
