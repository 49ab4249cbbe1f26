#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace msgbus_server {

/// What one process may have of the server, and all of them together, so that none can take what others need.
struct Limits {
    std::size_t connectionsPerProcess = 1024; ///< to one service
    std::size_t connections = 2048;           ///< to one service
    std::size_t publishersPerProcess = 1024;
    std::size_t publishers = 4096;
    std::size_t subscribersPerProcess = 1024;
    std::size_t subscribers = 4096;
    std::size_t handshakesPerProcess = 64;
    std::size_t handshakes = 1024;
    std::size_t handshakeSeconds = 60;
    std::size_t nameBytesPerProcess = 4U << 20;
    std::size_t nameBytes = 64U << 20;
    std::size_t queuedValuesPerSubscriber = 500'000;
    std::size_t queuedBytesPerSubscriber = 64U << 20;
    std::size_t queuedBytesPerProcess = 512U << 20;
    std::size_t queuedBytes = 768U << 20;
};

/// A limit as operators see it.
struct LimitName {
    std::string_view name;
    std::size_t Limits::*value;
    std::size_t lowest;
    std::size_t highest;
    std::string_view meaning;
};

/// Every limit, in the order of its documentation.
std::span<const LimitName> LimitNames();

} // namespace msgbus_server
