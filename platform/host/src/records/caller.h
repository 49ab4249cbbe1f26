#pragma once

#include "kn/caller.h"

#include <atomic>

namespace borven_host {

/// A process with connections to this one, as long as anything refers to it.
struct Caller {
    explicit Caller(const KnCaller& who) : identity(who) {}

    const KnCaller identity;
    std::atomic<bool> isGone{false}; ///< its last connection has closed
};

} // namespace borven_host
