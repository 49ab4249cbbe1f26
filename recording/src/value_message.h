#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// A value as a message of the types std_msgs/msg/Int64 and Float64: a header that names the byte order, and eight
// bytes, which are the same for both, because a double travels on the bus by its bits.

namespace recording {

inline constexpr std::size_t ValueMessageSize = 12;

/// Appends the message.
void AppendValueMessage(std::string& bytes, std::int64_t value);

/// Returns: the value of a message in either byte order; nothing when it is none.
std::optional<std::int64_t> ValueOf(std::string_view message);

} // namespace recording
