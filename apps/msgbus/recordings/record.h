#pragma once

#include "action.h"
#include "bus_options.h"
#include "recordings/file_series.h"
#include "recordings/ring_recording.h"
#include "topics/subscribe.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace recordings {

/// `msgbus record`
struct RecordArguments {
    BusAccess access;
    std::string file;
    topics::Selection topics;
    std::string name;
    std::optional<std::uint64_t> count;
    std::optional<std::chrono::milliseconds> timeLimit;
    recording::ExistingFile existing = recording::ExistingFile::IsKept;
    SplitRules rules;
    std::optional<RingRules> ring; ///< in place of a file that grows
};

/// Runs `msgbus record`. Returns: Failed when values were lost. Throws: what the client library throws;
/// recording::RecordingError; std::system_error.
ExitStatus Record(const RecordArguments& arguments);

/// Adds the command. The action is put into `chosen`, which must outlive the parsing, when it is parsed.
void AddRecordCommand(command_line::Command& program, Action& chosen);

} // namespace recordings
