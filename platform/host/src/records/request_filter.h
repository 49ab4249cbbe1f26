#pragma once

#include "nk/message.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace borven_host {

/// Which requests of a connection reach the server (kn/connection_manager.h, kn/policy.h).
struct RequestFilter {
    std::optional<std::uint16_t> onlyInterface; ///< the one interface it may address; empty: any
    std::optional<std::uint32_t> methodCount;   ///< of that interface; empty: any method passes

    /// Requires: `request` is a private copy; to check what a client can still change proves nothing.
    /// Returns: 0 to let it pass; KnStatusBadRecord, KnStatusDenied or KnStatusUnimplemented to answer it with.
    std::int32_t Check(const nk_message& request) const noexcept;
};

/// The number that the server program declared for the interface `type`, if it did.
std::optional<std::uint32_t> DeclaredMethodCount(const std::string& type);

} // namespace borven_host
