#include "kn/handle.h"

#include "base/no_throw.h"
#include "exports/handle_table.h"
#include "joining/housekeeper.h"

using namespace borven_host;

std::int32_t KnHandleClose(KnHandle handle) noexcept {
    return NoThrow([&]() -> std::int32_t {
        const auto end = HandleTable::Instance().Remove(handle);
        if (!end) {
            return KnStatusInvalidArgument;
        }
        if (end->channel) {
            Housekeeper::Instance().Close(end->channel);
        } else {
            end->connection->Close();
        }
        return KnStatusOk;
    });
}

void KnHandleStopReceiving() noexcept {
    NoThrow([] {
        // In this order: what was accepted before is among the server ends, and nothing is accepted afterwards.
        Housekeeper::Instance().StopListening();
        for (const auto& channel : HandleTable::Instance().ServerEnds()) {
            channel->StopReceiving();
        }
        return KnStatusOk;
    });
}

void KnHandleCloseServerEnds() noexcept {
    NoThrow([] {
        Housekeeper::Instance().CloseAll(HandleTable::Instance().RemoveServerEnds());
        return KnStatusOk;
    });
}
