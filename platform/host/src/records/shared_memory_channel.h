#pragma once

#include "base/unique_fd.h"
#include "nk/deferred_reply.h"
#include "nk/loss.h"
#include "nk/message.h"
#include "records/caller.h"
#include "records/request_filter.h"
#include "records/shared_memory_ends.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace borven_host {

/// Server end of a channel (see shared_memory_slot.h).
class Channel final {
public:
    /// What Reply returns when the client is gone: KnStatusPeerGone, or 0.
    enum class DeadClient { ReplyReportsIt, ReplyAnswersOk };

    /// Each costs four descriptors, and one mapping of a page.
    static constexpr std::size_t MaxClients = 2048;

    explicit Channel(DeadClient deadClient);
    ~Channel();

    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    /// Joins a client whose credentials were checked, and which speaks `layoutVersion`, over its connected socket, and
    /// sends it its ends. Moves from `socket` on success only, and keeps it open at least until RemoveClient or Close:
    /// the housekeeper watches it by its number.
    ///
    /// Returns: 0 and `*clientId`; KnStatusClosed; KnStatusBusy; KnStatusNoResources; KnStatusPeerGone. Blocks: never.
    /// Threads: any.
    std::int32_t AddClient(UniqueFd&& socket, std::uint32_t layoutVersion, const RequestFilter& filter,
                           std::uint64_t* clientId, std::shared_ptr<const Caller> caller = nullptr);

    /// The same for a client that has its ends already; nothing is sent.
    std::int32_t AddClient(UniqueFd&& socket, SharedMemoryEnds&& ends, const RequestFilter& filter,
                           std::uint64_t* clientId);

    /// The client is dead, or was shut down. Idempotent. Threads: any.
    void RemoveClient(std::uint64_t clientId) noexcept;

    /// See nk/transport.h.
    std::int32_t Receive(nk_message* request) noexcept;
    std::int32_t Reply(const nk_message* response) noexcept;

    /// See nk/deferred_reply.h; these know their own channel.
    std::int32_t Defer(NkDeferredReply& deferred) noexcept;
    std::int32_t ReplyDeferred(const NkDeferredReply& deferred, const nk_message& response, const NkOffers& offers,
                               std::size_t& offered) noexcept;
    std::int32_t TakeBackOffers(const NkDeferredReply& deferred, std::size_t& taken) noexcept;

    /// See nk/loss.h.
    std::int32_t NoteLoss(const NkDeferredReply& deferred, const NkLoss& loss) noexcept;

    /// Makes every blocked or later receive return KnStatusClosed. Clients stay, and received requests can be replied
    /// to. Idempotent. Threads: any.
    void StopReceiving() noexcept;

    /// Wakes all receivers and ends all clients. Idempotent. Threads: any.
    void Close() noexcept;

    std::size_t ClientCount() const noexcept;

private:
    struct State;

    const std::shared_ptr<State> state;
};

} // namespace borven_host
