#pragma once

#include "nk/message.h"
#include "records/channel_client.h"
#include "records/request_observer.h"

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

// A request belongs to the thread that received it, until that thread replies. The thread keeps the client alive: a
// client that is removed meanwhile, or whose channel is destroyed, goes with this reference. A thread that receives
// again on the channel, or ends, has abandoned its request, and the caller gets KnStatusAbandoned. A thread that has
// deferred its reply owes nothing, but its own reply is still to come, and is dropped.

namespace borven_host {

using Record = std::array<std::byte, NkRecordSize>;

/// The requests that a thread has received and not answered: at most one for each channel.
///
/// Threads: the one that has it.
class OwedReplies final {
public:
    static OwedReplies& OfThisThread() {
        thread_local OwedReplies owed;
        return owed;
    }

    OwedReplies() = default;
    OwedReplies(const OwedReplies&) = delete;
    OwedReplies& operator=(const OwedReplies&) = delete;

    /// Abandons all of them, except in a child that a fork made of the thread: it owes nothing.
    ~OwedReplies();

    /// Makes room for one more, before a request is claimed: a claimed request must not be lost for want of memory.
    void Reserve() {
        if (entries.size() == entries.capacity()) {
            entries.reserve(entries.size() + 4);
        }
        if (!spare && RequestObserver::Instance().Get() != nullptr) {
            spare = std::make_unique<Record>();
        }
    }

    /// Requires: room was reserved; the thread owes no reply on `channel`.
    void Add(const void* channel, std::shared_ptr<ChannelClient> client) noexcept {
        assert(entries.size() < entries.capacity());
        assert(Find(channel) == entries.end());
        entries.push_back({channel, std::move(client), nullptr});
        latest = channel;
    }

    /// The same for a request that is observed: it is kept for its reply.
    void AddObserved(const void* channel, std::shared_ptr<ChannelClient> client, const nk_message& request) noexcept {
        Add(channel, std::move(client));
        assert(spare);
        std::memcpy(spare->data(), &request, NkRecordSize);
        entries.back().request = std::move(spare);
    }

    /// Returns: the client whose request the thread received last; null when it owes no reply to that.
    const ChannelClient* Latest() noexcept {
        const auto found = Find(latest);
        return found == entries.end() ? nullptr : found->client.get();
    }

    /// Hands over the reply that the thread owes on `channel`. Returns: the client; null when none is owed.
    std::shared_ptr<ChannelClient> Defer(const void* channel) noexcept {
        const auto found = Find(channel);
        return found == entries.end() ? nullptr : std::move(found->client);
    }

    /// Shows the observer the reply to the request on `channel`, if that is observed.
    void Observe(const void* channel, const nk_message& reply) noexcept {
        if (const auto found = Find(channel); found != entries.end() && found->request && found->client) {
            spare = std::move(found->request); // kept for the next one
            const auto& request = *reinterpret_cast<const nk_message*>(spare->data());
            if (auto* const observer = RequestObserver::Instance().Get()) {
                observer->OnReply(found->client->caller->identity, request, reply);
            }
        }
    }

    /// Ends the thread's duty on `channel`. Returns: the client that waits for the reply, null if that was deferred;
    /// nothing when no reply is to come.
    std::optional<std::shared_ptr<ChannelClient>> Settle(const void* channel) noexcept {
        const auto found = Find(channel);
        if (found == entries.end()) {
            return std::nullopt;
        }
        auto client = std::move(found->client);
        *found = std::move(entries.back());
        entries.pop_back();
        return client;
    }

private:
    struct Entry {
        const void* channel;                   ///< compared only: the channel may have been destroyed
        std::shared_ptr<ChannelClient> client; ///< null: deferred
        std::unique_ptr<Record> request;       ///< null: not observed
    };

    std::vector<Entry>::iterator Find(const void* channel) noexcept {
        return std::find_if(entries.begin(), entries.end(),
                            [channel](const Entry& entry) { return entry.channel == channel; });
    }

    const pid_t owner = ::getpid();
    std::vector<Entry> entries;
    const void* latest = nullptr;  ///< the channel on which the thread received last
    std::unique_ptr<Record> spare; ///< for the next request that is observed
};

} // namespace borven_host
