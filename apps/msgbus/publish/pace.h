#pragma once

#include "end_watch.h"

#include <chrono>
#include <optional>

namespace publish {

/// When each value is due: at once, or the first at once and the others at equal intervals from it. A value that is
/// late does not move those behind it, so that the rate is kept on average.
class Pace final {
public:
    /// Lifetime: `endWatch` must outlive this object.
    Pace(std::optional<std::chrono::nanoseconds> interval, const EndWatch& endWatch)
        : step(interval), watch(endWatch) {}

    /// Blocks: until the next value is due. Returns: false, at once, when the program is to end.
    bool Await();

private:
    std::optional<std::chrono::nanoseconds> step;
    const EndWatch& watch;
    std::optional<std::chrono::steady_clock::time_point> due; ///< of the next value; none: of the first, at once
};

} // namespace publish
