#pragma once

#include "base/unique_fd.h"
#include "common/mutex.h"
#include "nk/message.h"
#include "records/caller.h"
#include "records/channel_client.h"
#include "records/event_fd.h"
#include "records/request_filter.h"
#include "records/shared_memory_channel.h"
#include "records/shared_memory_ends.h"
#include "records/sleep_place.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>

// The epoll set in which the receivers of a channel sleep holds the bells of its clients, an event that is readable for
// ever once receiving has stopped or the channel is closed, and an event that wakes one receiver. The bells are
// edge-triggered: the kernel gives each ring to one receiver, in the order of the rings, and keeps a ring that no
// receiver has read.
//
// Events carry the number of a client, and numbers are not used twice. So an event that outlives its client finds no
// client.

namespace borven_host {

/// The clients of a channel, and what its receivers sleep on.
class ClientTable final {
public:
    /// Throws std::system_error for want of descriptors.
    explicit ClientTable(Channel::DeadClient reaction);

    /// Adds a client and sends it its ends. `file`: the region's; null when the client has its ends already.
    ///
    /// Returns: 0 and `*clientId`; KnStatusClosed; KnStatusBusy; KnStatusNoResources; KnStatusPeerGone. Moves from
    /// `socket` on success only. Blocks: only for the table's mutex. Threads: any.
    std::int32_t Add(UniqueFd&& socket, SharedMemoryEnds&& ends, const UniqueFd* file, const RequestFilter& filter,
                     std::shared_ptr<const Caller> caller, std::uint64_t* clientId) EXCLUDES(mutex);

    /// Removes and ends a client. Returns: the client; null when it is not there any more. Threads: any.
    std::shared_ptr<ChannelClient> Remove(std::uint64_t clientId) noexcept EXCLUDES(mutex);

    /// Wakes all receivers. Idempotent. Threads: any.
    void StopReceiving() noexcept;

    /// Wakes all receivers, removes and ends all clients. Returns: false when that was done before. Threads: any.
    bool Close() noexcept EXCLUDES(mutex);

    /// Returns: 0 and `client`; KnStatusPeerGone for one that was removed; KnStatusInvalidArgument for a number that
    /// never was a client's. Threads: any.
    std::int32_t Find(std::uint64_t clientId, std::shared_ptr<ChannelClient>& client) const EXCLUDES(mutex);

    bool IsClosed(std::memory_order order) const noexcept { return isClosed.load(order); }
    bool IsReceiving() const noexcept { return isReceiving.load(std::memory_order_acquire); }
    std::size_t Count() const noexcept { return count.load(std::memory_order_relaxed); }

    /// Asks the kernel for one event, and claims the request of the client that rang. Returns: the client; null when
    /// there was no event, another one, or no request. Threads: any number.
    std::shared_ptr<ChannelClient> ClaimRung(nk_message* request) noexcept EXCLUDES(mutex);

    /// The same, but sleeps until there is an event. `place`: the calling thread's.
    std::shared_ptr<ChannelClient> SleepAndClaim(nk_message* request, ReceiverPlace& place) noexcept EXCLUDES(mutex);

    /// Wakes one receiver that sleeps, to look at the clients that have not rung.
    void WakeReceiver() const noexcept { Ring(kick); }

private:
    std::shared_ptr<ChannelClient> Find(std::uint64_t clientId) const EXCLUDES(mutex) {
        const common::MutexLock lock(mutex);
        const auto found = clients.find(clientId);
        return found == clients.end() ? nullptr : found->second;
    }

    std::shared_ptr<ChannelClient> ClaimOf(const epoll_event& event, nk_message* request) noexcept EXCLUDES(mutex);
    bool IsCounted() const REQUIRES(mutex) { return Count() == clients.size(); }
    void Unwatch(const ChannelClient& client) const noexcept;

    const Channel::DeadClient deadClient;
    const UniqueFd epoll;
    const UniqueFd ended;
    const UniqueFd kick;
    std::atomic<bool> isReceiving{true};
    std::atomic<bool> isClosed{false};
    std::atomic<std::size_t> count{0}; ///< of clients; changed under the mutex
    mutable common::Mutex mutex;
    std::unordered_map<std::uint64_t, std::shared_ptr<ChannelClient>> clients GUARDED_BY(mutex);
    std::uint64_t lastId GUARDED_BY(mutex);
};

} // namespace borven_host
