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
        for (const auto& channel : HandleTable::Instance().ServerEnds()) {
            channel->StopReceiving();
        }
        Housekeeper::Instance().StopListening();
        return KnStatusOk;
    });
}

void KnHandleCloseServerEnds() noexcept {
    NoThrow([] {
        Housekeeper::Instance().CloseAll(HandleTable::Instance().RemoveServerEnds());
        return KnStatusOk;
    });
}
