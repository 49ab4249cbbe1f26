#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <string_view>

namespace terminal {

/// Writes `text` to stdout.
/// Returns: false when its reader has closed the pipe. Throws: std::system_error. Blocks: until all is written.
bool WriteOut(std::string_view text);

/// Returns: the value as one line with its line feed, which cannot control a terminal: the control characters that JSON
/// permits in a string are replaced by its escapes. Bytes that are not UTF-8 become U+FFFD.
std::string JsonLine(const nlohmann::ordered_json& value);

} // namespace terminal
