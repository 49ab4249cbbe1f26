#pragma once

#include "action.h"
#include "command_line/command.h"
#include "instruments/trace_record.h"

#include <chrono>
#include <map>
#include <optional>
#include <string>

namespace trace {

/// `msgbus trace`
struct Arguments {
    std::string topic;
    std::size_t count = 10;
    std::chrono::milliseconds waitForServer{0};
    std::optional<std::chrono::milliseconds> timeLimit;
    std::optional<std::string> output; ///< file for the trace viewer
    bool json = false;
};

/// Names of subscribers, by id.
using Names = std::map<std::int64_t, std::string>;

/// Returns: a line for each value and one for each of its copies. `first`: the number of the first of them.
std::string ToText(const instruments::TraceRecord& record, const Names& names);

/// Returns: the record in the JSON format of Chrome's trace viewer, which ui.perfetto.dev opens: each subscriber is a
/// thread, and what a value waits for is a slice.
std::string ToTraceEvents(const instruments::TraceRecord& record, const Names& names);

/// Runs `msgbus trace`.
/// Throws: server_access::ServerAwayError; std::invalid_argument; std::runtime_error; std::system_error.
ExitStatus Trace(const Arguments& arguments);

/// Adds the command. The action is put into `chosen`, which must outlive the parsing, when it is parsed.
void AddCommand(command_line::Command& program, Action& chosen);

} // namespace trace
