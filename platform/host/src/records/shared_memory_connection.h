#pragma once

#include "base/deadline.h"
#include "base/unique_fd.h"
#include "nk/message.h"
#include "records/adaptive_spin.h"
#include "records/shared_memory_region.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

namespace borven_host {

/// What a server hands to a client that joins, besides the socket.
struct SharedMemoryEnds {
    SharedMemoryRegion region;
    UniqueFd bell;     ///< event descriptor: the client rings for the server
    UniqueFd doorbell; ///< event descriptor: the server rings for the client
};

/// Client end of a channel (see shared_memory_channel.cpp).
class Connection final {
public:
    /// Waits for the server's answer on `socket`, which is connected to a server whose credentials were checked.
    ///
    /// Returns: 0 and `connection`; the status that the server refused with; KnStatusClosed; KnStatusTimedOut;
    /// KnStatusDenied when what listens there does not speak this protocol; KnStatusNoResources.
    static std::int32_t Join(UniqueFd socket, Deadline deadline, std::shared_ptr<Connection>& connection);

    /// `process`: the server's, or empty. Throws std::system_error for want of descriptors.
    Connection(UniqueFd socket, UniqueFd process, SharedMemoryEnds ends);

    /// See nk/transport.h.
    std::int32_t Call(const nk_message* request, nk_message* response) noexcept;

    /// Ends a call that is under way. Idempotent. Threads: any.
    void Close() noexcept;

private:
    static constexpr std::size_t learnerCount = 16;

    bool HasReply(SlotWord& reply) const noexcept;
    bool Sleep(SlotWord& reply) noexcept;

    const UniqueFd socket;
    const UniqueFd serverProcess;
    const SharedMemoryEnds shared;
    const UniqueFd poller; ///< what a call sleeps on
    std::atomic<bool> isClosed{false};
    std::mutex callMutex;                           ///< held for the length of a call: calls take turns; guards:
    std::uint32_t sequence = 0;                     ///< of the last call
    std::array<SpinLearner, learnerCount> learners; ///< by method: some answer at once, some after minutes
};

} // namespace borven_host
