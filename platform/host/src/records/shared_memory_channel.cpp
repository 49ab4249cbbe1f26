#include "records/shared_memory_channel.h"

#include "base/no_throw.h"
#include "kn/status.h"
#include "records/adaptive_spin.h"
#include "records/client_table.h"
#include "records/connection_limits.h"
#include "records/event_fd.h"
#include "records/owed_replies.h"
#include "records/poller_role.h"
#include "records/request_observer.h"
#include "records/sleep_place.h"

#include <algorithm>
#include <atomic>
#include <utility>

// A receiver looks for a request as the poller (poller_role.h) or sleeps until a client rings (client_table.h). Then it
// owes the reply (owed_replies.h), which it writes to the client's slot (channel_client.h). What the clients do
// meanwhile: shared_memory_slot.h.

namespace borven_host {

namespace {

/// Returns: whether the request passes; the observer's answer is sent otherwise.
bool AnnounceRequest(KnIRequestObserver& observer, ChannelClient& client, nk_message& request) noexcept {
    Record answer{};
    auto& reply = *reinterpret_cast<nk_message*>(answer.data());
    if (observer.OnRequest(client.caller->identity, request, reply)) {
        return true;
    }
    static_cast<void>(client.Reply(reply)); // nothing goes to a client that is gone
    return false;
}

} // namespace

struct Channel::State {
    explicit State(DeadClient deadClient) : clients(deadClient) {}

    /// Polls if that is worthwhile and the role is free, otherwise sleeps. Returns: the client whose request was
    /// claimed; null after any other event.
    std::shared_ptr<ChannelClient> ClaimNext(nk_message* request) noexcept {
        std::shared_ptr<ChannelClient> client;
        std::size_t looked = 0;
        if (role.TryEnter()) {
            client = role.Poll(request);
            looked = role.RecentCount();
            role.Leave();
        }
        if (!client) {
            return Sleep(request);
        }
        NoteClose(*client, looked);
        if (looked > 1 && sleepers.load(std::memory_order_seq_cst) > 0 && role.TryEnter()) {
            if (role.SeesRequest()) {
                clients.WakeReceiver();
            }
            role.Leave();
        }
        return client;
    }

    std::shared_ptr<ChannelClient> Sleep(nk_message* request) noexcept {
        const auto asleepAt = SteadyClock::now().time_since_epoch().count();
        sleepers.fetch_add(1, std::memory_order_seq_cst);
        if (role.IsMissed()) {
            sleepers.fetch_sub(1, std::memory_order_relaxed);
            return nullptr;
        }
        auto client = clients.SleepAndClaim(request, ReceiverPlace::OfThisThread());
        sleepers.fetch_sub(1, std::memory_order_relaxed);
        if (client) {
            const auto now = SteadyClock::now().time_since_epoch().count();
            const auto before = std::max(lastArrival.exchange(now, std::memory_order_relaxed), asleepAt);
            const SteadyClock::duration gap(now - before);
            std::size_t recent = 0;
            if (role.TryEnter()) {
                role.Learn(client, gap);
                recent = role.RecentCount();
                role.Leave();
            }
            if (gap < PollerRole::ShortGap) {
                NoteClose(*client, recent);
            }
        }
        return client;
    }

    /// A request of `client` came without a pause. `recent`: the clients that were active lately; a crowd of them
    /// leaves no CPU to move to.
    void NoteClose(const ChannelClient& client, std::size_t recent) noexcept {
        auto& place = ReceiverPlace::OfThisThread();
        place.NoteAwake();
        if (recent >= PollerRole::CrowdOfClients) {
            return;
        }
        const WakeHint hint(client.Slot().request.wake.load(std::memory_order_relaxed));
        if (role.MayHaveTurn() && place.NoteClose(hint.Cpu()) && role.TryEnter()) {
            role.LearnAnew();
            role.Leave();
        }
    }

    ClientTable clients;
    PollerRole role{clients};
    std::atomic<std::uint32_t> sleepers{0};
    std::atomic<SteadyClock::rep> lastArrival{0};
};

Channel::Channel(DeadClient deadClient) : state(std::make_shared<State>(deadClient)) {}

Channel::~Channel() {
    Close();
}

std::int32_t Channel::AddClient(UniqueFd&& socket, std::uint32_t layoutVersion, const RequestFilter& filter,
                                std::uint64_t* clientId, std::shared_ptr<const Caller> caller) {
    if (state->clients.Count() >= ConnectionLimits::Current().perChannel) {
        return KnStatusBusy;
    }
    SharedMemoryEnds ends;
    UniqueFd file;
    if (const auto status = SharedMemoryRegion::Create(layoutVersion, ends.region, file); status != KnStatusOk) {
        return status;
    }
    ends.bell = MakeBell();
    ends.doorbell = MakeBell();
    if (!ends.bell || !ends.doorbell) {
        return KnStatusNoResources;
    }
    return state->clients.Add(std::move(socket), std::move(ends), &file, filter, std::move(caller), clientId);
}

std::int32_t Channel::AddClient(UniqueFd&& socket, SharedMemoryEnds&& ends, const RequestFilter& filter,
                                std::uint64_t* clientId) {
    return state->clients.Add(std::move(socket), std::move(ends), nullptr, filter, nullptr, clientId);
}

void Channel::RemoveClient(std::uint64_t clientId) noexcept {
    if (const auto removed = state->clients.Remove(clientId)) {
        state->role.ForgetGone();
    }
}

std::int32_t Channel::Receive(nk_message* request) noexcept {
    return NoThrow([&]() -> std::int32_t {
        auto& owed = OwedReplies::OfThisThread();
        if (const auto abandoned = owed.Settle(state.get()); abandoned && *abandoned) {
            (*abandoned)->Answer(KnStatusAbandoned);
        }
        owed.Reserve();
        std::shared_ptr<ChannelClient> client;
        while (!state->clients.IsClosed(std::memory_order_acquire)) {
            if (client) {
                auto* const observer = RequestObserver::Instance().Of(*request);
                if (observer == nullptr || !client->caller) {
                    owed.Add(state.get(), std::move(client));
                    return KnStatusOk;
                }
                if (AnnounceRequest(*observer, *client, *request)) {
                    owed.AddObserved(state.get(), std::move(client), *request);
                    return KnStatusOk;
                }
                client.reset();
                request->size = NkRecordSize; // the next claim needs the room
            }
            if (!state->clients.IsReceiving()) {
                return KnStatusClosed;
            }
            client = state->ClaimNext(request);
        }
        if (client) {
            client->Answer(KnStatusClosed);
        }
        return KnStatusClosed;
    });
}

std::int32_t Channel::Reply(const nk_message* response) noexcept {
    auto& owed = OwedReplies::OfThisThread();
    owed.Observe(state.get(), *response);
    const auto client = owed.Settle(state.get());
    if (state->clients.IsClosed(std::memory_order_acquire)) {
        return KnStatusClosed;
    }
    if (!client) {
        return KnStatusInvalidArgument;
    }
    return *client ? (*client)->Reply(*response) : KnStatusOk;
}

std::int32_t Channel::Defer(NkDeferredReply& deferred) noexcept {
    if (state->clients.IsClosed(std::memory_order_acquire)) {
        return KnStatusClosed;
    }
    const auto client = OwedReplies::OfThisThread().Defer(state.get());
    if (!client) {
        return KnStatusInvalidArgument;
    }
    deferred.call = client->Defer();
    deferred.client = client->id;
    return KnStatusOk;
}

std::int32_t Channel::ReplyDeferred(const NkDeferredReply& deferred, const nk_message& response, const NkOffers& offers,
                                    std::size_t& offered) noexcept {
    if (state->clients.IsClosed(std::memory_order_acquire)) {
        return KnStatusClosed;
    }
    std::shared_ptr<ChannelClient> client;
    if (const auto status = state->clients.Find(deferred.client, client); status != KnStatusOk) {
        return status;
    }
    return client->Resume(deferred.call) ? client->ReplyLate(response, offers, offered) : KnStatusInvalidArgument;
}

std::int32_t Channel::TakeBackOffers(const NkDeferredReply& deferred, std::size_t& taken) noexcept {
    if (state->clients.IsClosed(std::memory_order_acquire)) {
        return KnStatusClosed;
    }
    std::shared_ptr<ChannelClient> client;
    if (const auto status = state->clients.Find(deferred.client, client); status != KnStatusOk) {
        return status;
    }
    const auto count = client->TakeBack(deferred.call);
    if (!count) {
        return KnStatusInvalidArgument;
    }
    taken = *count;
    return KnStatusOk;
}

std::int32_t Channel::NoteLoss(const NkDeferredReply& deferred, const NkLoss& loss) noexcept {
    if (state->clients.IsClosed(std::memory_order_acquire)) {
        return KnStatusClosed;
    }
    std::shared_ptr<ChannelClient> client;
    if (const auto status = state->clients.Find(deferred.client, client); status != KnStatusOk) {
        return status;
    }
    SharedSlot& slot = client->Slot();
    slot.reason.store(loss.reason, std::memory_order_relaxed); // the word of the next reply orders both
    slot.lost.store(loss.lost, std::memory_order_relaxed);
    return KnStatusOk;
}

void Channel::StopReceiving() noexcept {
    state->clients.StopReceiving();
}

void Channel::Close() noexcept {
    if (state->clients.Close()) {
        state->role.ForgetGone();
    }
}

std::size_t Channel::ClientCount() const noexcept {
    return state->clients.Count();
}

} // namespace borven_host
