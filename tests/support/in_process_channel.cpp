#include "support/in_process_channel.h"

#include "kn/status.h"

#include <algorithm>
#include <cstring>
#include <map>

namespace test_support {

namespace {

/// The requests that a thread has received and not answered yet, by channel. A thread that ends abandons them.
struct OwedReplies {
    struct Debt {
        std::weak_ptr<InProcessChannel> channel;
        std::shared_ptr<Exchange> exchange;
    };

    ~OwedReplies() {
        for (auto& [key, debt] : debts) {
            if (const auto channel = debt.channel.lock()) {
                channel->Abandon(*debt.exchange);
            }
        }
    }

    std::shared_ptr<Exchange> Take(const InProcessChannel* channel) {
        const auto found = debts.find(channel);
        if (found == debts.end() || found->second.channel.lock().get() != channel) {
            return nullptr;
        }
        auto exchange = std::move(found->second.exchange);
        debts.erase(found);
        return exchange;
    }

    std::map<const InProcessChannel*, Debt> debts;
};

thread_local OwedReplies owed;

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
    if (const auto dropped = owed.Take(this)) {
        Abandon(*dropped);
    }
    std::unique_lock lock(mutex);
    changed.wait(lock, [this] { return isClosed || !isReceiving || !waiting.empty(); });
    if (isClosed || !isReceiving) {
        return KnStatusClosed;
    }
    auto exchange = std::move(waiting.front());
    waiting.pop_front();
    std::memcpy(static_cast<void*>(request), exchange->request.data(), NkRecordSize);
    owed.debts[this] = {weak_from_this(), std::move(exchange)};
    return KnStatusOk;
}

std::int32_t InProcessChannel::Reply(const nk_message* response) {
    const auto exchange = owed.Take(this);
    const std::lock_guard lock(mutex);
    if (isClosed) {
        return KnStatusClosed;
    }
    if (!exchange) {
        return KnStatusInvalidArgument;
    }
    if (exchange->isCallerGone) {
        return deadClient == DeadClient::ReplyReportsIt ? KnStatusPeerGone : KnStatusOk;
    }
    const std::size_t size = std::clamp<std::size_t>(NkGetSize(*response), sizeof(nk_message), NkRecordSize);
    std::memcpy(exchange->response.data(), response, size); // zeros behind it
    exchange->isFinished = true;
    changed.notify_all();
    return KnStatusOk;
}

void InProcessChannel::Abandon(Exchange& exchange) {
    const std::lock_guard lock(mutex);
    exchange.isFinished = true;
    exchange.status = isClosed ? KnStatusClosed : KnStatusAbandoned;
    changed.notify_all();
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
    changed.notify_all();
}

std::int32_t InProcessConnection::Call(const nk_message* request, nk_message* response) {
    std::unique_lock lock(channel->mutex);
    if (isClosed || channel->isClosed) {
        return KnStatusClosed;
    }
    if (const auto status = CheckRequest(limits, *request); status != KnStatusOk) {
        return status;
    }
    channel->changed.wait(lock, [this] { return isClosed || channel->isClosed || current == nullptr; });
    if (isClosed || channel->isClosed) {
        return KnStatusClosed;
    }
    const auto exchange = std::make_shared<Exchange>();
    std::memcpy(exchange->request.data(), request, NkRecordSize);
    current = exchange;
    channel->waiting.push_back(exchange);
    channel->changed.notify_all();
    channel->changed.wait(lock, [&] { return isClosed || channel->isClosed || exchange->isFinished; });
    current = nullptr;
    channel->changed.notify_all();
    if (!exchange->isFinished) {
        return KnStatusClosed;
    }
    if (exchange->status == KnStatusOk) {
        std::memcpy(static_cast<void*>(response), exchange->response.data(), NkRecordSize);
    }
    return exchange->status;
}

void InProcessConnection::Close() {
    const std::lock_guard lock(channel->mutex);
    isClosed = true;
    if (current && !current->isFinished) {
        current->isCallerGone = true;
        std::erase(channel->waiting, current);
    }
    channel->changed.notify_all();
}

} // namespace test_support
