#pragma once

#include "nk/deferred_reply.h"
#include "nk/loss.h"
#include "nk/message.h"
#include "support/in_process_callers.h"
#include "support/in_process_descriptor.h"

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace test_support {

using RecordBytes = std::array<std::uint8_t, NkRecordSize>;

/// One request on its way through a channel. Guarded by the channel's mutex.
struct Exchange {
    std::uint64_t client = 0;
    std::shared_ptr<InProcessCaller> caller;
    RecordBytes request{}; ///< as it was sent; once observed, as it is received
    RecordBytes response{};
    bool isSent = false;
    bool isObserved = false;
    bool isFinished = false;
    bool isDropped = false; ///< its caller has abandoned it
    bool isCallerGone = false;
    std::int32_t status = 0;
};

/// Replies ahead, until the server takes them back. `call`: the one whose reply they came with.
struct Offers {
    std::uint32_t call = 0;
    RecordBytes request{};
    RecordBytes reply{};
    std::size_t offset = 0;
    std::vector<std::int64_t> values;
    std::size_t next = 0;
};

/// What both ends know of a connection. Guarded by the channel's mutex.
struct ConnectionState {
    std::uint64_t id = 0;
    std::shared_ptr<InProcessCaller> caller; ///< null once the connection has left it
    bool isClosed = false;
    std::uint32_t lastCall = 0;         ///< numbers the requests that were sent
    std::shared_ptr<Exchange> current;  ///< of the call that has the turn
    bool isBegun = false;               ///< whether that call was begun, and neither finished nor abandoned
    std::shared_ptr<Exchange> deferred; ///< the same exchange, while its reply is deferred
    std::shared_ptr<InProcessDescriptor> descriptor; ///< null until it is asked for, and after it was moved
    std::optional<Offers> offers;
    NkLoss loss;
};

/// What a connection may ask.
struct ConnectionLimits {
    std::optional<std::uint16_t> onlyInterface;
    std::optional<std::uint32_t> methodCount;
};

/// Server end of a channel.
class InProcessChannel final : public std::enable_shared_from_this<InProcessChannel> {
public:
    enum class DeadClient { ReplyReportsIt, ReplyAnswersOk };

    explicit InProcessChannel(DeadClient deadClientPolicy) : deadClient(deadClientPolicy) {}

    std::int32_t Receive(nk_message* request);
    std::int32_t Reply(const nk_message* response);
    std::int32_t Defer(NkDeferredReply& deferred);
    std::int32_t ReplyDeferred(const NkDeferredReply& deferred, const nk_message& response, const NkOffers& offers,
                               std::size_t& offered);
    std::int32_t TakeBackOffers(const NkDeferredReply& deferred, std::size_t& taken);
    std::int32_t NoteLoss(const NkDeferredReply& deferred, const NkLoss& loss);
    /// Returns: the caller of the request that the calling thread has received from this channel; null: none.
    std::shared_ptr<InProcessCaller> CallerOfRequest();
    bool HasRoom(std::uint32_t perCaller, std::uint32_t perChannel);
    void StopReceiving();
    void Close();

    /// Finishes an exchange that its thread gives up.
    void Abandon(Exchange& exchange);

private:
    friend class InProcessConnection;

    std::shared_ptr<ConnectionState> AddConnection();
    bool Announce(Exchange& exchange);
    /// Returns: 0 and the connection over which the deferred request came. Requires: the mutex is locked.
    std::int32_t Find(const NkDeferredReply& deferred, std::shared_ptr<ConnectionState>& connection) const;
    /// Ends an exchange with a reply. Requires: the mutex is locked.
    void Finish(Exchange& exchange, const nk_message& response);
    /// Tells the caller that its exchange is over. Requires: the mutex is locked.
    void End(Exchange& exchange);

    const DeadClient deadClient;
    std::mutex mutex; // guards all below, and the connections of this channel
    std::condition_variable changed;
    bool isReceiving = true;
    bool isClosed = false;
    std::deque<std::shared_ptr<Exchange>> waiting;
    std::uint64_t lastConnection = 0;
    std::map<std::uint64_t, std::shared_ptr<ConnectionState>> connections; ///< the open ones
};

/// Client end.
class InProcessConnection final {
public:
    InProcessConnection(std::shared_ptr<InProcessChannel> serverEnd, ConnectionLimits connectionLimits)
        : channel(std::move(serverEnd)), limits(connectionLimits), state(channel->AddConnection()) {}

    std::int32_t Call(const nk_message* request, nk_message* response);
    std::int32_t Begin(const nk_message* request, std::uint32_t timeoutMs);
    std::int32_t Finish(nk_message* response, std::uint32_t timeoutMs);
    std::int32_t Abandon();
    std::int32_t Descriptor(int& descriptor);
    std::int32_t MoveDescriptorFrom(InProcessConnection& former);
    std::int32_t WakeDescriptor(std::uint32_t afterMs);
    void End();
    void Close();
    NkLoss Loss() const;

private:
    // Of these, each requires that the channel's mutex is locked.
    bool IsOver() const { return state->isClosed || channel->isClosed; }
    bool IsFree() const { return !state->current || (state->current->isDropped && state->current->isFinished); }
    /// Waits for the turn. Returns: 0; KnStatusTimedOut; KnStatusClosed.
    std::int32_t AwaitTurn(std::unique_lock<std::mutex>& lock, std::uint32_t timeoutMs);
    std::shared_ptr<Exchange> ExchangeFor(const nk_message* request) const;
    void Send(const std::shared_ptr<Exchange>& exchange);
    /// Gives the turn back. Returns: the outcome of the call that had it.
    std::int32_t EndTurn(nk_message* response);
    bool HasOffer(const nk_message* request) const;
    /// Takes the next offer in place of the reply to `request`, if there is one. Returns: whether there was.
    bool TakeOffer(const nk_message* request, nk_message* response);

    const std::shared_ptr<InProcessChannel> channel;
    const ConnectionLimits limits;
    const std::shared_ptr<ConnectionState> state; // its content is guarded by the channel's mutex
};

} // namespace test_support
