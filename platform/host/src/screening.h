#pragma once

#include "nk/message.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace borven_host {

/// What a connection may ask (kn/connection_manager.h, kn/policy.h).
struct Screening {
    std::optional<std::uint16_t> onlyInterface;
    std::optional<std::uint32_t> methodCount;
};

/// Returns: 0, KnStatusBadRecord, KnStatusDenied or KnStatusUnimplemented for a private copy of a request.
std::int32_t Screen(const Screening& screening, const nk_message& request) noexcept;

/// The number that the server program declared for the interface `type`, if it did.
std::optional<std::uint32_t> DeclaredMethodCount(const std::string& type);

} // namespace borven_host
