#include "records/poller_role.h"

#include <algorithm>
#include <cassert>
#include <chrono>

namespace borven_host {

namespace {

/// How long the poller looks after the last request. A client that slept needs most of that to come back.
constexpr std::chrono::microseconds SpinLimit{50};
constexpr std::chrono::microseconds SpinLimitWhenWanted{5}; ///< while another channel's receiver waits for its turn

/// A turn that was not used for so long has no poller: its threads all serve long requests, or the channel is closed.
constexpr std::chrono::milliseconds AbandonedAfter{1};

constexpr std::uint32_t ShortGapsWanted = 2;

constexpr std::size_t MaxRecent = 64; ///< a round over them costs a cache line each
constexpr int LooksPerKernel = 64;    ///< so that the recent clients cannot starve those that ring

} // namespace

std::atomic<const PollerRole*> PollerRole::turn{nullptr};
std::atomic<std::uint32_t> PollerRole::turnUses{0};
std::atomic<bool> PollerRole::isTurnWanted{false};

PollerRole::PollerRole(ClientTable& served) : clients(served) {
    recent.reserve(MaxRecent);
}

PollerRole::~PollerRole() {
    EndTurn();
}

std::shared_ptr<ChannelClient> PollerRole::Poll(nk_message* request) noexcept {
    assert(isHeld.load(std::memory_order_relaxed));
    if (isPolled.load(std::memory_order_relaxed)) {
        if (auto client = Scan(request)) {
            learner.Succeeded();
            UseTurn();
            return client;
        }
        if (!TakeTurn()) {
            return GiveUp(request);
        }
    } else if (recent.empty() || shortGaps < ShortGapsWanted || !learner.IsWorthwhile() || !TakeTurn()) {
        return nullptr;
    }
    Announce(true);
    std::shared_ptr<ChannelClient> client;
    const auto limit = isTurnWanted.exchange(false, std::memory_order_relaxed) ? SpinLimitWhenWanted : SpinLimit;
    // The analysis does not see that SpinUntil calls this here, in the role.
    const auto look = [&]() NO_THREAD_SAFETY_ANALYSIS {
        client = Scan(request);
        return client || clients.IsClosed(std::memory_order_relaxed);
    };
    SpinUntil(limit, learner, look, recent.size() >= CrowdOfClients);
    if (client) {
        learner.Succeeded();
        UseTurn();
        return client;
    }
    learner.Failed();
    EndTurn();
    return GiveUp(request);
}

std::shared_ptr<ChannelClient> PollerRole::GiveUp(nk_message* request) noexcept {
    // Announced, then looked once more: a client publishes, then reads its hint.
    Announce(false);
    auto client = Scan(request);
    if (client) {
        Announce(true); // it leaves like any poller with a request, so what it leaves behind is looked for
    } else {
        recent.clear();
    }
    return client;
}

bool PollerRole::TakeTurn() noexcept {
    const PollerRole* holder = nullptr;
    if (turn.compare_exchange_strong(holder, this, std::memory_order_relaxed) || holder == this) {
        UseTurn();
        return true;
    }
    isTurnWanted.store(true, std::memory_order_relaxed);
    const auto uses = turnUses.load(std::memory_order_relaxed);
    const auto now = SteadyClock::now();
    if (uses != refused.uses) {
        refused = {uses, now};
        return false;
    }
    if (now - refused.since < AbandonedAfter ||
        !turn.compare_exchange_strong(holder, this, std::memory_order_relaxed)) {
        return false;
    }
    UseTurn();
    return true;
}

void PollerRole::UseTurn() noexcept {
    if (HasTurn()) {
        turnUses.store(turnUses.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
}

void PollerRole::EndTurn() noexcept {
    const PollerRole* holder = this;
    turn.compare_exchange_strong(holder, nullptr, std::memory_order_relaxed);
}

void PollerRole::Learn(const std::shared_ptr<ChannelClient>& client, SteadyClock::duration gap) noexcept {
    shortGaps = gap < ShortGap ? std::min(shortGaps + 1, ShortGapsWanted) : 0;
    assert(recent.size() <= MaxRecent && recent.capacity() >= MaxRecent);
    if (client->IsGone()) {
        return; // removed since its request was claimed, so ForgetGone may have been and will not come again
    }
    if (std::find(recent.begin(), recent.end(), client) != recent.end()) {
        return;
    }
    if (recent.size() < MaxRecent) {
        recent.push_back(client);
    } else {
        auto& replaced = recent[nextRecent % MaxRecent];
        replaced->Slot().reply.hint.store(0, std::memory_order_seq_cst);
        replaced = client;
    }
    if (isPolled.load(std::memory_order_relaxed)) {
        client->Slot().reply.hint.store(1, std::memory_order_relaxed);
    }
}

void PollerRole::ForgetGone() noexcept {
    hasGone.store(true, std::memory_order_seq_cst);
    if (TryEnter()) {
        Leave();
    }
}

/// One round over the recent clients, from the one after the last that had a request.
std::shared_ptr<ChannelClient> PollerRole::Scan(nk_message* request) noexcept {
    if (++looks >= LooksPerKernel) {
        looks = 0;
        if (clients.Count() > recent.size()) {
            if (auto client = clients.ClaimRung(request)) {
                Learn(client, SteadyClock::duration::zero());
                return client;
            }
        }
    }
    for (std::size_t i = 0; i < recent.size(); ++i) {
        const std::size_t index = (nextRecent + i) % recent.size();
        if (recent[index]->TryClaim(request)) {
            nextRecent = index + 1;
            return recent[index];
        }
    }
    return nullptr;
}

void PollerRole::EraseGone() noexcept {
    hasGone.store(false, std::memory_order_seq_cst);
    std::erase_if(recent, [](const auto& client) { return client->IsGone(); });
}

} // namespace borven_host
