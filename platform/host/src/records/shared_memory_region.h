#pragma once

#include "base/unique_fd.h"
#include "records/shared_memory_slot.h"

#include <cstdint>
#include <memory>

namespace borven_host {

/// Memory that a server and one client share. Unmapped with the last copy of this.
///
/// The memory has no name. The server makes it, with all its pages, and seals its size before another process sees it,
/// so a client cannot shrink it under the server (SIGBUS). A forked child does not have it.
class SharedMemoryRegion final {
public:
    SharedMemoryRegion() = default;

    /// Server. `layoutVersion`: what the client speaks.
    /// Returns: 0, `region`, and `file` for the client; KnStatusNoResources.
    static std::int32_t Create(std::uint32_t layoutVersion, SharedMemoryRegion& region, UniqueFd& file);

    /// Client. Returns: 0 and `region`; KnStatusDenied when `file` is not what Create makes; KnStatusNoResources.
    static std::int32_t Open(const UniqueFd& file, SharedMemoryRegion& region);

    SharedSlot& Slot() const noexcept { return *slot; }

private:
    static std::int32_t Map(const UniqueFd& file, SharedMemoryRegion& region);

    std::shared_ptr<SharedSlot> slot;
};

} // namespace borven_host
