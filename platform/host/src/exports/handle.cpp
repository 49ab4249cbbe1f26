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

void KnHandleCloseServerEnds() noexcept {
    NoThrow([] {
        std::vector<std::shared_ptr<Channel>> channels;
        for (const auto& end : HandleTable::Instance().RemoveServerEnds()) {
            channels.push_back(end->channel);
        }
        Housekeeper::Instance().CloseAll(channels);
        return KnStatusOk;
    });
}
