// Checks arguments and finds the end of the handle; records/channel.h names the transport that does the rest.

#include "nk/transport.h"

#include "base/thread_name.h"
#include "exports/handle_table.h"
#include "kn/status.h"

using borven_host::End;
using borven_host::HandleTable;

namespace {

bool HasOutOfLineData(const nk_arena* arena) {
    return arena != nullptr && arena->current != arena->start;
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
