#pragma once

#include <cstdint>

namespace borven_host {

/// How many connections a channel takes (KnPolicySetConnectionLimits).
struct ConnectionLimits {
    std::uint32_t perCaller;
    std::uint32_t perChannel;

    /// Returns: whether these are fewer than a channel can take. Threads: any.
    bool Exist() const noexcept;
    /// Threads: any.
    static ConnectionLimits Current() noexcept;

    /// Counts a connection that is refused because of a limit, for KnPolicyRefusedConnections. Threads: any.
    static void CountRefusal() noexcept;
};

} // namespace borven_host
