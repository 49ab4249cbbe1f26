#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace msgbus_monitor {

/// An address that only processes of this machine can reach, and a port.
struct LoopbackAddress {
    std::string host;       ///< a number, without brackets
    std::uint16_t port = 0; ///< 0: one that the system chooses
    bool isVersion6 = false;

    /// Returns: as Parse reads it.
    std::string ToText() const;

    /// Reads "127.0.0.1:8080" or "[::1]:8080"; any address of 127.0.0.0/8 does, and no name.
    /// Throws: std::invalid_argument with a sentence.
    static LoopbackAddress Parse(std::string_view text);
};

} // namespace msgbus_monitor
