#pragma once

#include "kn/status.h"

#include <cstdint>

namespace borven_host {

/// Runs `step` at a boundary that no exception may cross. What the standard library throws when memory or threads run
/// out becomes KnStatusNoResources.
template <typename Step>
std::int32_t NoThrow(const Step& step) noexcept {
    try {
        return step();
    } catch (...) {
        return KnStatusNoResources;
    }
}

} // namespace borven_host
