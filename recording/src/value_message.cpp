#include "recording/value_message.h"

#include "common/escape.h"
#include "encoding.h"

#include <algorithm>

namespace recording {

namespace {

// The encapsulation of CDR (OMG DDS-RTPS): plain CDR in the big-endian or the little-endian order, and no options.
constexpr std::string_view LittleEndian{"\x00\x01\x00\x00", 4};
constexpr std::string_view BigEndian{"\x00\x00\x00\x00", 4};

} // namespace

std::string ChannelName(std::string_view topic) {
    return utf8::IsValid(topic) ? std::string(topic) : common::Escaped(topic);
}

void AppendValueMessage(std::string& bytes, std::int64_t value) {
    bytes += LittleEndian;
    Encoder(bytes).U64(static_cast<std::uint64_t>(value));
}

std::optional<std::int64_t> ValueOf(std::string_view message) {
    if (message.size() != ValueMessageSize) {
        return std::nullopt;
    }
    std::string value(message.substr(LittleEndian.size()));
    if (message.starts_with(BigEndian)) {
        std::reverse(value.begin(), value.end());
    } else if (!message.starts_with(LittleEndian)) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(Decoder(value).U64());
}

} // namespace recording
