#pragma once

#include <cstdint>

namespace borven_host {

/// How many connections a channel takes (KnPolicySetConnectionLimits).
struct ConnectionLimits {
    std::uint32_t perCaller;
    std::uint32_t perChannel;

    /// Threads: any.
    static ConnectionLimits Current() noexcept;
};

} // namespace borven_host
