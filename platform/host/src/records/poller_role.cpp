#include "records/poller_role.h"

#include <algorithm>
#include <cassert>
#include <chrono>

namespace borven_host {

namespace {

/// How long the poller looks after the last request. A client that slept needs most of that to come back.
constexpr std::chrono::microseconds SpinLimit{50};

/// Requests that come closer than this are worth waiting for awake.
constexpr std::chrono::microseconds ShortGap{100};
constexpr std::uint32_t ShortGapsWanted = 2;

constexpr std::size_t MaxRecent = 16; ///< a round over them costs a cache line each
constexpr int LooksPerKernel = 64;    ///< so that the recent clients cannot starve those that ring

} // namespace

PollerRole::PollerRole(ClientTable& served) : clients(served) {
    recent.reserve(MaxRecent);
}

std::shared_ptr<ChannelClient> PollerRole::Poll(nk_message* request) noexcept {
    assert(isHeld.load(std::memory_order_relaxed));
    if (isPolled.load(std::memory_order_relaxed)) {
        if (auto client = Scan(request)) {
            learner.Succeeded();
            return client;
        }
    } else if (recent.empty() || shortGaps < ShortGapsWanted || !learner.IsWorthwhile()) {
        return nullptr;
    }
    Announce(true);
    std::shared_ptr<ChannelClient> client;
    // The analysis does not see that SpinUntil calls this here, in the role.
    SpinUntil(SpinLimit, learner, [&]() NO_THREAD_SAFETY_ANALYSIS {
        client = Scan(request);
        return client || clients.IsClosed(std::memory_order_relaxed);
    });
    if (client) {
        learner.Succeeded();
        return client;
    }
    learner.Failed();
    // Announced, then looked once more: a client publishes, then reads its hint.
    Announce(false);
    client = Scan(request);
    if (client) {
        Announce(true); // it leaves like any poller with a request, so what it leaves behind is looked for
    } else {
        recent.clear();
    }
    return client;
}

void PollerRole::Learn(const std::shared_ptr<ChannelClient>& client, SteadyClock::duration gap) noexcept {
    shortGaps = gap < ShortGap ? std::min(shortGaps + 1, ShortGapsWanted) : 0;
    assert(recent.size() <= MaxRecent && recent.capacity() >= MaxRecent);
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
            if (auto client = clients.ClaimRung(request, 0)) {
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
