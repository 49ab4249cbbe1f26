// Checks arguments and finds the end of the handle; records/channel.h names the transport that does the rest.

#include "nk/transport.h"

#include "base/thread_name.h"
#include "exports/handle_table.h"
#include "kn/status.h"
#include "nk/begun_call.h"
#include "nk/deferred_reply.h"
#include "nk/loss.h"

using borven_host::End;
using borven_host::HandleTable;

namespace {

/// The channel on which the thread received last.
thread_local KnHandle receivedLast = KnInvalidHandle;

bool HasOutOfLineData(const nk_arena* arena) {
    return arena != nullptr && arena->current != arena->start;
}

/// Returns: 0 and the channel whose server end `handle` names.
std::int32_t ChannelOf(KnHandle handle, borven_host::Channel*& channel) noexcept {
    End* end = nullptr;
    if (const auto status = HandleTable::Instance().Find(handle, end); status != KnStatusOk) {
        return status;
    }
    channel = end->channel.get();
    return channel != nullptr ? KnStatusOk : KnStatusInvalidArgument;
}

/// Returns: 0 and the connection whose client end `handle` names.
std::int32_t ConnectionOf(KnHandle handle, borven_host::Connection*& connection) noexcept {
    End* end = nullptr;
    if (const auto status = HandleTable::Instance().Find(handle, end); status != KnStatusOk) {
        return status;
    }
    connection = end->connection.get();
    return connection != nullptr ? KnStatusOk : KnStatusInvalidArgument;
}

/// Returns: 0 and the connection that `transport` is bound to.
std::int32_t ConnectionOf(const NkBosTransport* transport, borven_host::Connection*& connection) noexcept {
    if (transport == nullptr || transport->initialised == 0) {
        return KnStatusInvalidArgument;
    }
    return ConnectionOf(transport->handle, connection);
}

/// Returns: 0 and the end that `transport` is bound to.
std::int32_t EndOf(const NkBosTransport* transport, End*& end) noexcept {
    if (transport == nullptr || transport->initialised == 0) {
        return KnStatusInvalidArgument;
    }
    return HandleTable::Instance().Find(transport->handle, end);
}

} // namespace

std::int32_t NkBosTransport_Init(NkBosTransport* transport, KnHandle handle, void* arena,
                                 std::uint64_t arenaSize) noexcept {
    if (transport == nullptr) {
        return KnStatusInvalidArgument;
    }
    *transport = {handle, 1, arena, arenaSize};
    return KnStatusOk;
}

std::int32_t NkBosTransport_Receive(NkBosTransport* transport, nk_message* request, nk_arena*) noexcept {
    if (request == nullptr || NkGetSize(*request) != NkRecordSize) {
        return KnStatusInvalidArgument;
    }
    End* end = nullptr;
    if (const auto status = EndOf(transport, end); status != KnStatusOk) {
        return status;
    }
    if (!end->channel) {
        return KnStatusInvalidArgument;
    }
    borven_host::NameCallingThread(end->servingThreadName);
    receivedLast = transport->handle;
    return end->channel->Receive(request);
}

std::int32_t NkBosTransport_Reply(NkBosTransport* transport, const nk_message* response,
                                  const nk_arena* responseArena) noexcept {
    if (response == nullptr || HasOutOfLineData(responseArena)) {
        return KnStatusInvalidArgument;
    }
    End* end = nullptr;
    if (const auto status = EndOf(transport, end); status != KnStatusOk) {
        return status;
    }
    return end->channel ? end->channel->Reply(response) : KnStatusInvalidArgument;
}

std::int32_t NkBosTransport_Call(NkBosTransport* transport, const nk_message* request, const nk_arena* requestArena,
                                 nk_message* response, nk_arena*) noexcept {
    if (request == nullptr || response == nullptr || HasOutOfLineData(requestArena)) {
        return KnStatusInvalidArgument;
    }
    End* end = nullptr;
    if (const auto status = EndOf(transport, end); status != KnStatusOk) {
        return status;
    }
    return end->connection ? end->connection->Call(request, response) : KnStatusInvalidArgument;
}

std::int32_t NkDeferReply(NkDeferredReply* deferred) noexcept {
    borven_host::Channel* channel = nullptr;
    if (deferred == nullptr || receivedLast == KnInvalidHandle) {
        return KnStatusInvalidArgument;
    }
    if (const auto status = ChannelOf(receivedLast, channel); status != KnStatusOk) {
        return status;
    }
    deferred->channel = receivedLast;
    return channel->Defer(*deferred);
}

std::int32_t NkReplyDeferred(const NkDeferredReply& deferred, const nk_message* response, const NkOffers& offers,
                             std::size_t* offered) noexcept {
    if (response == nullptr || offers.count > NkMaxOffers || offers.offset > NkRecordSize - sizeof(std::int64_t) ||
        (offers.count != 0 && offers.values == nullptr)) {
        return KnStatusInvalidArgument;
    }
    borven_host::Channel* channel = nullptr;
    if (const auto status = ChannelOf(deferred.channel, channel); status != KnStatusOk) {
        return status;
    }
    std::size_t put = 0;
    const auto status = channel->ReplyDeferred(deferred, *response, offers, put);
    if (offered != nullptr) {
        *offered = put;
    }
    return status;
}

std::int32_t NkTakeBackOffers(const NkDeferredReply& deferred, std::size_t* taken) noexcept {
    if (taken == nullptr) {
        return KnStatusInvalidArgument;
    }
    borven_host::Channel* channel = nullptr;
    if (const auto status = ChannelOf(deferred.channel, channel); status != KnStatusOk) {
        return status;
    }
    return channel->TakeBackOffers(deferred, *taken);
}

std::int32_t NkNoteLoss(const NkDeferredReply& deferred, const NkLoss& loss) noexcept {
    borven_host::Channel* channel = nullptr;
    if (const auto status = ChannelOf(deferred.channel, channel); status != KnStatusOk) {
        return status;
    }
    return channel->NoteLoss(deferred, loss);
}

std::int32_t NkReadLoss(KnHandle handle, NkLoss* loss) noexcept {
    borven_host::Connection* connection = nullptr;
    if (loss == nullptr) {
        return KnStatusInvalidArgument;
    }
    const auto status = ConnectionOf(handle, connection);
    if (status == KnStatusOk) {
        *loss = connection->Loss();
    }
    return status;
}

std::int32_t NkBeginCall(NkBosTransport* transport, const nk_message* request, std::uint32_t timeoutMs) noexcept {
    borven_host::Connection* connection = nullptr;
    if (request == nullptr) {
        return KnStatusInvalidArgument;
    }
    const auto status = ConnectionOf(transport, connection);
    return status == KnStatusOk ? connection->Begin(request, timeoutMs) : status;
}

std::int32_t NkFinishCall(NkBosTransport* transport, nk_message* response, std::uint32_t timeoutMs) noexcept {
    borven_host::Connection* connection = nullptr;
    if (response == nullptr) {
        return KnStatusInvalidArgument;
    }
    const auto status = ConnectionOf(transport, connection);
    return status == KnStatusOk ? connection->Finish(response, timeoutMs) : status;
}

std::int32_t NkAbandonCall(NkBosTransport* transport) noexcept {
    borven_host::Connection* connection = nullptr;
    const auto status = ConnectionOf(transport, connection);
    return status == KnStatusOk ? connection->Abandon() : status;
}

std::int32_t NkEndCalls(KnHandle handle) noexcept {
    borven_host::Connection* connection = nullptr;
    const auto status = ConnectionOf(handle, connection);
    if (status == KnStatusOk) {
        connection->Close();
    }
    return status;
}

std::int32_t NkCallDescriptor(KnHandle handle, int* descriptor) noexcept {
    borven_host::Connection* connection = nullptr;
    if (descriptor == nullptr) {
        return KnStatusInvalidArgument;
    }
    const auto status = ConnectionOf(handle, connection);
    return status == KnStatusOk ? connection->Descriptor(*descriptor) : status;
}

std::int32_t NkMoveCallDescriptor(KnHandle handle, KnHandle former) noexcept {
    // The look-up of one handle may end the other's.
    std::shared_ptr<borven_host::Connection> source;
    borven_host::Connection* connection = nullptr;
    if (ConnectionOf(former, connection) != KnStatusOk) {
        return KnStatusInvalidArgument;
    }
    source = connection->shared_from_this();
    const auto status = ConnectionOf(handle, connection);
    return status == KnStatusOk ? connection->MoveDescriptorOf(*source) : status;
}

std::int32_t NkWakeCallDescriptor(KnHandle handle, std::uint32_t afterMs) noexcept {
    borven_host::Connection* connection = nullptr;
    const auto status = ConnectionOf(handle, connection);
    return status == KnStatusOk ? connection->WakeDescriptor(afterMs) : status;
}
