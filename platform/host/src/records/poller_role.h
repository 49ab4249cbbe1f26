#pragma once

#include "common/mutex.h"
#include "nk/message.h"
#include "records/adaptive_spin.h"
#include "records/channel_client.h"
#include "records/client_table.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

// One receiver of a channel at a time may be its poller: it looks at the slots of the clients that were active lately,
// the recent ones, and spins while that has paid. The others sleep in the kernel.
//
// - The role is a lock that no thread waits for: a receiver that does not get it sleeps.
// - While the poller spins, reply.hint of each recent client says that no ring is needed. A poller that gives up takes
//   the hints back, then looks once more; a client publishes, then reads its hint: one of the two sees the other.
//   If that look finds a request, the hints are set again.
// - A poller that claims a request leaves with it and leaves the hints set, because mostly it is back before the next
//   request. So a hint may be stale, and a client that stops spinning rings before it sleeps.
// - If such a poller leaves another request behind and a receiver sleeps, it wakes that receiver. A receiver counts
//   itself as a sleeper, then looks whether the role is free; the poller frees the role, then reads the count: one of
//   the two sees the other. Both miss it if a third thread has the role just then, to learn or to forget a client; the
//   request then waits until its client rings, at the end of its spin.
// - The clients that ring compete with the recent ones: every 64 looks the poller asks the kernel for a ring.
// - A client that is removed must not stay among the recent, nor come to them later. RemoveClient sets hasGone, then
//   tries to take the role; a poller frees the role, then reads hasGone: one of the two drops the references. A
//   receiver that has claimed a request of such a client does not learn it.

namespace borven_host {

/// The right to look at the slots of the recent clients and to spin.
class CAPABILITY("role") PollerRole final {
public:
    /// Requests that come closer than this are worth waiting for awake.
    static constexpr std::chrono::microseconds ShortGap{100};

    static constexpr std::size_t CrowdOfClients = 4; ///< they need the CPU that the poller looks on

    explicit PollerRole(ClientTable& served);
    PollerRole(const PollerRole&) = delete;
    PollerRole& operator=(const PollerRole&) = delete;
    ~PollerRole();

    /// Returns: whether the calling thread has the role now. Blocks: never. Threads: any.
    bool TryEnter() noexcept TRY_ACQUIRE(true) {
        return !isHeld.load(std::memory_order_seq_cst) && !isHeld.exchange(true, std::memory_order_seq_cst);
    }

    void Leave() noexcept RELEASE() {
        isHeld.store(false, std::memory_order_seq_cst);
        while (hasGone.load(std::memory_order_seq_cst) && !isHeld.exchange(true, std::memory_order_seq_cst)) {
            EraseGone();
            isHeld.store(false, std::memory_order_seq_cst);
        }
    }

    /// Looks for a request, and spins for one if that is worthwhile. Returns: its client, or null.
    std::shared_ptr<ChannelClient> Poll(nk_message* request) noexcept REQUIRES(this);

    /// A client has rung and was served: it is one of the recent from now on. `gap`: the time since the last request.
    void Learn(const std::shared_ptr<ChannelClient>& client, SteadyClock::duration gap) noexcept REQUIRES(this);

    bool HasTurn() const noexcept { return turn.load(std::memory_order_relaxed) == this; }

    /// Returns: false while the poller of another channel spins.
    bool MayHaveTurn() const noexcept {
        const auto* const holder = turn.load(std::memory_order_relaxed);
        return holder == nullptr || holder == this;
    }

    /// What was learnt about spinning no longer holds.
    void LearnAnew() noexcept REQUIRES(this) { learner = {}; }

    /// Returns: whether a recent client has a request that no receiver has claimed.
    bool SeesRequest() const noexcept REQUIRES(this) {
        return std::any_of(recent.begin(), recent.end(), [](const auto& client) { return client->HasRequest(); });
    }

    std::size_t RecentCount() const noexcept REQUIRES(this) { return recent.size(); }

    /// Returns: whether the poller has left with a request, and no receiver looks at the clients that rely on it.
    /// Threads: any.
    bool IsMissed() const noexcept {
        return !isHeld.load(std::memory_order_seq_cst) && isPolled.load(std::memory_order_relaxed);
    }

    /// Drops the references to clients that are gone, now or when the poller leaves its role. Threads: any.
    void ForgetGone() noexcept EXCLUDES(this);

private:
    std::shared_ptr<ChannelClient> Scan(nk_message* request) noexcept REQUIRES(this);

    /// Sets or clears the hint of each recent client: whether the poller looks at its slot, so that it need not ring.
    void Announce(bool isPolling) noexcept REQUIRES(this) {
        if (isPolled.load(std::memory_order_relaxed) == isPolling) {
            return;
        }
        for (const auto& client : recent) {
            client->Slot().reply.hint.store(isPolling ? 1 : 0, std::memory_order_seq_cst);
        }
        isPolled.store(isPolling, std::memory_order_relaxed);
    }

    void EraseGone() noexcept REQUIRES(this);

    /// Takes the hints back, then looks once more.
    std::shared_ptr<ChannelClient> GiveUp(nk_message* request) noexcept REQUIRES(this);

    /// Returns: whether this channel's poller is the one of the process that may spin: two of them would keep each
    /// other, or their clients, off the CPU. Takes the turn from a channel that has not used it lately.
    bool TakeTurn() noexcept REQUIRES(this);
    void UseTurn() noexcept REQUIRES(this);
    void EndTurn() noexcept;

    // The turn of the process. All of it is advice, which no other memory depends on, hence relaxed.
    static std::atomic<const PollerRole*> turn; ///< its holder; compared only
    static std::atomic<std::uint32_t> turnUses; ///< changed by its holder
    static std::atomic<bool> isTurnWanted;      ///< by the poller of another channel

    /// When this channel was refused the turn, and how often the turn had been used.
    struct Refusal {
        std::uint32_t uses = 0;
        SteadyClock::time_point since{};
    };

    ClientTable& clients;
    std::atomic<bool> hasGone{false};  ///< a client among the recent is gone
    std::atomic<bool> isPolled{false}; ///< the hints of the recent clients are set; changed in the role
    std::atomic<bool> isHeld{false};
    std::vector<std::shared_ptr<ChannelClient>> recent GUARDED_BY(this);
    std::size_t nextRecent GUARDED_BY(this) = 0;
    std::uint32_t shortGaps GUARDED_BY(this) = 0; ///< in a row, up to what is wanted
    int looks GUARDED_BY(this) = 0;               ///< since the kernel was asked
    SpinLearner learner GUARDED_BY(this);
    Refusal refused GUARDED_BY(this);
};

} // namespace borven_host
