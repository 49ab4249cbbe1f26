#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// A value as a message of the types std_msgs/msg/Int64 and Float64: a header that names the byte order, and eight
// bytes, which are the same for both, because a double travels on the bus by its bits. In files and over the network.

namespace recording {

// What other programs need to know of the messages.
inline constexpr std::string_view MessageEncoding = "cdr";
inline constexpr std::string_view SchemaEncoding = "ros2msg";
inline constexpr std::string_view Int64Name = "std_msgs/msg/Int64";
inline constexpr std::string_view Int64Definition = "int64 data";
inline constexpr std::string_view Float64Name = "std_msgs/msg/Float64";
inline constexpr std::string_view Float64Definition = "float64 data";

/// Returns: the name of a topic's channel: its bytes where they are UTF-8, else escaped.
std::string ChannelName(std::string_view topic);

inline constexpr std::size_t ValueMessageSize = 12;

/// Appends the message.
void AppendValueMessage(std::string& bytes, std::int64_t value);

/// Returns: the value of a message in either byte order; nothing when it is none.
std::optional<std::int64_t> ValueOf(std::string_view message);

} // namespace recording
