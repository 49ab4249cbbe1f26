#pragma once

#include <cstdint>
#include <string_view>

// The facts of the MCAP container that are used here, in its version 0 (https://mcap.dev).

namespace recording::mcap {

inline constexpr std::string_view Magic{"\x89MCAP0\r\n", 8};

enum class Opcode : std::uint8_t {
    Header = 0x01,
    Footer = 0x02,
    Schema = 0x03,
    Channel = 0x04,
    Message = 0x05,
    Chunk = 0x06,
    MessageIndex = 0x07,
    ChunkIndex = 0x08,
    Statistics = 0x0B,
    Metadata = 0x0C,
    MetadataIndex = 0x0D,
    SummaryOffset = 0x0E,
    DataEnd = 0x0F,
};

inline constexpr std::size_t RecordHead = 9; ///< bytes of a record before its content: opcode and length
inline constexpr std::string_view Zstd = "zstd";
inline constexpr std::string_view Profile = "ros2";

// Keys of a channel's metadata that are ours, and one that the profile asks for.
inline constexpr const char* DescriptionKey = "msgbus.description";
inline constexpr const char* TopicBytesKey = "msgbus.topic_hex"; ///< of a topic that is not UTF-8
inline constexpr const char* QosKey = "offered_qos_profiles";

} // namespace recording::mcap
