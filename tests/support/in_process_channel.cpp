#include "support/in_process_channel.h"

#include "kn/status.h"
#include "nk/begun_call.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <optional>
#include <utility>

namespace test_support {

namespace {

/// The requests that a thread has received and not answered yet, by channel. A thread that ends abandons them. Of one
/// that it has deferred, it owes nothing, but its own reply is still to come.
struct OwedReplies {
    struct Debt {
        std::weak_ptr<InProcessChannel> channel;
        std::shared_ptr<Exchange> exchange; ///< null: deferred
    };

    ~OwedReplies() {
        for (auto& [key, debt] : debts) {
            if (const auto channel = debt.channel.lock(); channel && debt.exchange) {
                channel->Abandon(*debt.exchange);
            }
        }
    }

    /// Returns: the exchange, null when it is deferred; nothing when no reply is to come.
    std::optional<std::shared_ptr<Exchange>> Take(const InProcessChannel* channel) {
        const auto found = debts.find(channel);
        if (found == debts.end() || found->second.channel.lock().get() != channel) {
            return std::nullopt;
        }
        auto exchange = std::move(found->second.exchange);
        debts.erase(found);
        return exchange;
    }

    std::shared_ptr<Exchange> Defer(const InProcessChannel* channel) {
        const auto found = debts.find(channel);
        const bool isOwed = found != debts.end() && found->second.channel.lock().get() == channel;
        return isOwed ? std::move(found->second.exchange) : nullptr;
    }

    /// Returns: the exchange that is owed and not deferred; null: none.
    std::shared_ptr<Exchange> Peek(const InProcessChannel* channel) const {
        const auto found = debts.find(channel);
        return found != debts.end() && found->second.channel.lock().get() == channel ? found->second.exchange : nullptr;
    }

    std::map<const InProcessChannel*, Debt> debts;
};

const nk_message& AsMessage(const RecordBytes& record) {
    return *reinterpret_cast<const nk_message*>(record.data());
}

thread_local OwedReplies owed;

/// Returns: whether the condition came true in time.
template <typename Condition>
bool WaitFor(std::condition_variable& changed, std::unique_lock<std::mutex>& lock, std::uint32_t timeoutMs,
             const Condition& condition) {
    if (timeoutMs == NkForever) {
        changed.wait(lock, condition);
        return true;
    }
    return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), condition);
}

std::int32_t CheckRequest(const ConnectionLimits& limits, const nk_message& request) {
    if ((request.size & (NkErrorFlag | NkSizeMask)) != NkRecordSize) {
        return KnStatusBadRecord;
    }
    if (limits.onlyInterface && request.iid != *limits.onlyInterface) {
        return KnStatusDenied;
    }
    return limits.methodCount && request.mid >= *limits.methodCount ? KnStatusUnimplemented : KnStatusOk;
}

} // namespace

std::int32_t InProcessChannel::Receive(nk_message* request) {
    if (const auto dropped = owed.Take(this); dropped && *dropped) {
        Abandon(**dropped);
    }
    std::shared_ptr<Exchange> exchange;
    do {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return isClosed || !isReceiving || !waiting.empty(); });
        if (isClosed || !isReceiving) {
            return KnStatusClosed;
        }
        exchange = std::move(waiting.front());
        waiting.pop_front();
    } while (!Announce(*exchange));
    std::memcpy(static_cast<void*>(request), exchange->request.data(), NkRecordSize);
    owed.debts[this] = {weak_from_this(), std::move(exchange)};
    return KnStatusOk;
}

/// Returns: whether the request passes; the observer's answer is sent otherwise.
bool InProcessChannel::Announce(Exchange& exchange) {
    auto* const observer = InProcessCallers::Instance().ObserverOf(AsMessage(exchange.request));
    if (observer == nullptr) {
        return true;
    }
    RecordBytes answer{};
    if (observer->OnRequest(exchange.caller->identity, reinterpret_cast<nk_message&>(exchange.request),
                            reinterpret_cast<nk_message&>(answer))) {
        exchange.isObserved = true;
        return true;
    }
    const std::lock_guard lock(mutex);
    if (!exchange.isCallerGone) {
        Finish(exchange, AsMessage(answer));
    }
    return false;
}

std::shared_ptr<InProcessCaller> InProcessChannel::CallerOfRequest() {
    const auto exchange = owed.Peek(this);
    return exchange ? exchange->caller : nullptr;
}

bool InProcessChannel::HasRoom(std::uint32_t perCaller, std::uint32_t perChannel) {
    const std::lock_guard lock(mutex);
    const auto own = std::count_if(connections.begin(), connections.end(), [](const auto& entry) {
        return entry.second->caller->identity.pid == ActingAs::Current();
    });
    return connections.size() < perChannel && static_cast<std::size_t>(own) < perCaller;
}

std::int32_t InProcessChannel::Reply(const nk_message* response) {
    if (const auto exchange = owed.Peek(this); exchange && exchange->isObserved) {
        auto* const observer = InProcessCallers::Instance().ObserverOf(AsMessage(exchange->request));
        observer->OnReply(exchange->caller->identity, AsMessage(exchange->request), *response);
    }
    const auto debt = owed.Take(this);
    const std::lock_guard lock(mutex);
    if (isClosed) {
        return KnStatusClosed;
    }
    if (!debt) {
        return KnStatusInvalidArgument;
    }
    const auto& exchange = *debt;
    if (!exchange) {
        return KnStatusOk;
    }
    if (exchange->isCallerGone) {
        return deadClient == DeadClient::ReplyReportsIt ? KnStatusPeerGone : KnStatusOk;
    }
    Finish(*exchange, *response);
    return KnStatusOk;
}

std::int32_t InProcessChannel::Defer(NkDeferredReply& deferred) {
    const std::lock_guard lock(mutex);
    if (isClosed) {
        return KnStatusClosed;
    }
    const auto exchange = owed.Defer(this);
    if (!exchange) {
        return KnStatusInvalidArgument;
    }
    deferred.client = exchange->client;
    deferred.call = 0; // of a client that is gone
    if (const auto found = connections.find(exchange->client); found != connections.end()) {
        found->second->deferred = exchange;
        deferred.call = found->second->lastCall;
    }
    return KnStatusOk;
}

std::int32_t InProcessChannel::ReplyDeferred(const NkDeferredReply& deferred, const nk_message& response,
                                             const NkOffers& offers, std::size_t& offered) {
    const std::lock_guard lock(mutex);
    std::shared_ptr<ConnectionState> connection;
    if (const auto status = Find(deferred, connection); status != KnStatusOk) {
        return status;
    }
    if (!connection->deferred || connection->lastCall != deferred.call) {
        return KnStatusInvalidArgument;
    }
    const auto exchange = std::move(connection->deferred);
    Finish(*exchange, response);
    if (offers.count != 0 && !connection->offers) {
        connection->offers = {deferred.call,
                              exchange->request,
                              exchange->response,
                              offers.offset,
                              {offers.values, offers.values + offers.count}};
        offered = offers.count;
    }
    return KnStatusOk;
}

std::int32_t InProcessChannel::TakeBackOffers(const NkDeferredReply& deferred, std::size_t& taken) {
    const std::lock_guard lock(mutex);
    std::shared_ptr<ConnectionState> connection;
    if (const auto status = Find(deferred, connection); status != KnStatusOk) {
        return status;
    }
    if (!connection->offers || connection->offers->call != deferred.call) {
        return KnStatusInvalidArgument;
    }
    taken = connection->offers->next;
    connection->offers.reset();
    return KnStatusOk;
}

std::int32_t InProcessChannel::NoteLoss(const NkDeferredReply& deferred, const NkLoss& loss) {
    const std::lock_guard lock(mutex);
    std::shared_ptr<ConnectionState> connection;
    const auto status = Find(deferred, connection);
    if (status == KnStatusOk) {
        connection->loss = loss;
    }
    return status;
}

std::int32_t InProcessChannel::Find(const NkDeferredReply& deferred,
                                    std::shared_ptr<ConnectionState>& connection) const {
    if (isClosed) {
        return KnStatusClosed;
    }
    if (const auto found = connections.find(deferred.client); found != connections.end()) {
        connection = found->second;
        return KnStatusOk;
    }
    return deferred.client != 0 && deferred.client <= lastConnection ? KnStatusPeerGone : KnStatusInvalidArgument;
}

void InProcessChannel::Finish(Exchange& exchange, const nk_message& response) {
    const std::size_t size = std::clamp<std::size_t>(NkGetSize(response), sizeof(nk_message), NkRecordSize);
    std::memcpy(exchange.response.data(), &response, size); // zeros behind it
    End(exchange);
}

void InProcessChannel::End(Exchange& exchange) {
    exchange.isFinished = true;
    if (const auto found = connections.find(exchange.client); found != connections.end()) {
        const ConnectionState& caller = *found->second;
        if (caller.isBegun && caller.current.get() == &exchange && caller.descriptor) {
            caller.descriptor->Signal();
        }
    }
    changed.notify_all();
}

std::shared_ptr<ConnectionState> InProcessChannel::AddConnection() {
    const std::lock_guard lock(mutex);
    auto connection = std::make_shared<ConnectionState>();
    connection->id = ++lastConnection;
    connection->caller = InProcessCallers::Instance().Enter();
    connections[connection->id] = connection;
    return connection;
}

void InProcessChannel::Abandon(Exchange& exchange) {
    const std::lock_guard lock(mutex);
    exchange.status = isClosed ? KnStatusClosed : KnStatusAbandoned;
    End(exchange);
}

void InProcessChannel::StopReceiving() {
    const std::lock_guard lock(mutex);
    isReceiving = false;
    changed.notify_all();
}

void InProcessChannel::Close() {
    const std::lock_guard lock(mutex);
    isClosed = true;
    waiting.clear();
    for (const auto& [id, connection] : connections) {
        InProcessCallers::Instance().Leave(*std::exchange(connection->caller, nullptr));
        if (connection->descriptor) {
            connection->descriptor->Signal();
        }
    }
    connections.clear();
    changed.notify_all();
}

std::int32_t InProcessConnection::Call(const nk_message* request, nk_message* response) {
    std::unique_lock lock(channel->mutex);
    if (IsOver()) {
        return KnStatusClosed;
    }
    if (const auto status = CheckRequest(limits, *request); status != KnStatusOk) {
        return status;
    }
    if (const auto status = AwaitTurn(lock, NkForever); status != KnStatusOk) {
        return status;
    }
    if (TakeOffer(request, response)) {
        return KnStatusOk;
    }
    const auto exchange = ExchangeFor(request);
    state->current = exchange;
    Send(exchange);
    channel->changed.wait(lock, [&] { return IsOver() || exchange->isFinished; });
    return EndTurn(response);
}

std::int32_t InProcessConnection::Begin(const nk_message* request, std::uint32_t timeoutMs) {
    std::unique_lock lock(channel->mutex);
    if (const auto status = AwaitTurn(lock, timeoutMs); status != KnStatusOk) {
        return status;
    }
    const auto exchange = ExchangeFor(request);
    state->current = exchange;
    state->isBegun = true;
    exchange->status = CheckRequest(limits, *request);
    if (exchange->status != KnStatusOk) {
        channel->End(*exchange);
    } else if (!HasOffer(request)) {
        Send(exchange);
    } else if (state->descriptor) {
        state->descriptor->Signal();
    }
    return KnStatusOk;
}

std::int32_t InProcessConnection::Finish(nk_message* response, std::uint32_t timeoutMs) {
    std::unique_lock lock(channel->mutex);
    if (!state->isBegun) {
        return KnStatusInvalidArgument;
    }
    const auto exchange = state->current;
    if (!IsOver() && !exchange->isFinished && !exchange->isSent) {
        if (TakeOffer(&AsMessage(exchange->request), response)) {
            static_cast<void>(EndTurn(response)); // an exchange that was not sent has no outcome
            return KnStatusOk;
        }
        Send(exchange); // the server has taken the offer back
    }
    if (!WaitFor(channel->changed, lock, timeoutMs, [&] { return IsOver() || exchange->isFinished; })) {
        if (state->descriptor) {
            state->descriptor->Clear();
        }
        return KnStatusTimedOut;
    }
    return EndTurn(response);
}

std::int32_t InProcessConnection::Abandon() {
    const std::lock_guard lock(channel->mutex);
    if (!state->isBegun) {
        return KnStatusInvalidArgument;
    }
    state->isBegun = false;
    state->current->isDropped = true;
    state->current->isFinished |= !state->current->isSent;
    channel->changed.notify_all();
    return IsOver() ? KnStatusClosed : KnStatusOk;
}

std::int32_t InProcessConnection::Descriptor(int& descriptor) {
    const std::lock_guard lock(channel->mutex);
    if (!state->descriptor) {
        auto opened = std::make_shared<InProcessDescriptor>();
        if (!opened->IsOpen()) {
            return KnStatusNoResources;
        }
        state->descriptor = std::move(opened);
        if (IsOver() || state->isBegun) { // a finish that finds nothing ends that
            state->descriptor->Signal();
        }
    }
    descriptor = state->descriptor->Number();
    return KnStatusOk;
}

std::int32_t InProcessConnection::MoveDescriptorFrom(InProcessConnection& former) {
    if (this == &former) {
        return KnStatusInvalidArgument;
    }
    // Both mutexes are the same when both are clients of one channel.
    {
        const std::lock_guard lock(channel->mutex);
        if (state->descriptor) {
            return KnStatusInvalidArgument;
        }
    }
    std::shared_ptr<InProcessDescriptor> moved;
    {
        const std::lock_guard lock(former.channel->mutex);
        moved = std::move(former.state->descriptor);
    }
    if (!moved) {
        return KnStatusInvalidArgument;
    }
    const std::lock_guard lock(channel->mutex);
    moved->Signal();
    state->descriptor = std::move(moved);
    return KnStatusOk;
}

std::int32_t InProcessConnection::WakeDescriptor(std::uint32_t afterMs) {
    const std::lock_guard lock(channel->mutex);
    if (!state->descriptor || !IsOver()) {
        return KnStatusInvalidArgument;
    }
    state->descriptor->SignalIn(afterMs);
    return KnStatusOk;
}

std::int32_t InProcessConnection::AwaitTurn(std::unique_lock<std::mutex>& lock, std::uint32_t timeoutMs) {
    if (!WaitFor(channel->changed, lock, timeoutMs, [this] { return IsOver() || IsFree(); })) {
        return KnStatusTimedOut;
    }
    return IsOver() ? KnStatusClosed : KnStatusOk;
}

std::shared_ptr<Exchange> InProcessConnection::ExchangeFor(const nk_message* request) const {
    auto exchange = std::make_shared<Exchange>();
    exchange->client = state->id;
    exchange->caller = state->caller;
    std::memcpy(exchange->request.data(), request, NkRecordSize);
    return exchange;
}

void InProcessConnection::Send(const std::shared_ptr<Exchange>& exchange) {
    exchange->isSent = true;
    ++state->lastCall;
    channel->waiting.push_back(exchange);
    channel->changed.notify_all();
}

std::int32_t InProcessConnection::EndTurn(nk_message* response) {
    const auto exchange = std::exchange(state->current, nullptr);
    state->isBegun = false;
    channel->changed.notify_all();
    if (!exchange->isFinished) {
        return KnStatusClosed;
    }
    if (exchange->status == KnStatusOk) {
        std::memcpy(static_cast<void*>(response), exchange->response.data(), NkRecordSize);
    }
    return exchange->status;
}

bool InProcessConnection::HasOffer(const nk_message* request) const {
    const auto& offers = state->offers;
    return offers && offers->call == state->lastCall && offers->next != offers->values.size() &&
           std::memcmp(request, offers->request.data(), NkRecordSize) == 0;
}

bool InProcessConnection::TakeOffer(const nk_message* request, nk_message* response) {
    if (!HasOffer(request)) {
        return false;
    }
    Offers& offers = *state->offers;
    std::memcpy(static_cast<void*>(response), offers.reply.data(), NkRecordSize);
    const std::int64_t value = offers.values[offers.next++];
    std::memcpy(reinterpret_cast<std::uint8_t*>(response) + offers.offset, &value, sizeof value);
    return true;
}

NkLoss InProcessConnection::Loss() const {
    const std::lock_guard lock(channel->mutex);
    return state->loss;
}

void InProcessConnection::End() {
    const std::lock_guard lock(channel->mutex);
    state->isClosed = true;
    if (state->current && !state->current->isFinished) {
        state->current->isCallerGone = true;
        std::erase(channel->waiting, state->current);
    }
    state->deferred = nullptr;
    if (state->descriptor) {
        state->descriptor->Signal();
    }
    if (channel->connections.erase(state->id) != 0) {
        InProcessCallers::Instance().Leave(*std::exchange(state->caller, nullptr));
    }
    channel->changed.notify_all();
}

void InProcessConnection::Close() {
    End();
    const std::lock_guard lock(channel->mutex);
    state->descriptor = nullptr;
}

} // namespace test_support
