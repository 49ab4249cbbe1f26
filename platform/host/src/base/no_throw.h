#pragma once

#include "kn/status.h"

#include <cstdint>

namespace borven_host {

/// Runs `step` where no exception may leave: what the standard library throws for want of memory or threads becomes a
/// status.
template <typename Step>
std::int32_t NoThrow(const Step& step) noexcept {
    try {
        return step();
    } catch (...) {
        return KnStatusNoResources;
    }
}

} // namespace borven_host
