#include "records/adaptive_spin.h"

namespace borven_host {

namespace {

/// Read once at start, before any thread changes its own set of CPUs.
const bool OneCpu = [] {
    cpu_set_t cpus{};
    return ::sched_getaffinity(0, sizeof cpus, &cpus) == 0 && CPU_COUNT(&cpus) == 1;
}();

} // namespace

bool HasOneCpu() noexcept {
    return OneCpu;
}

} // namespace borven_host
