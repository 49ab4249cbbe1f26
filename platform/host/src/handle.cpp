#include "kn/handle.h"

#include "guarded.h"
#include "handle_table.h"
#include "housekeeper.h"

using namespace borven_host;

std::int32_t KnHandleClose(KnHandle handle) noexcept {
    return Guarded([&]() -> std::int32_t {
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
    Guarded([] {
        std::vector<std::shared_ptr<Channel>> channels;
        for (const auto& end : HandleTable::Instance().RemoveServerEnds()) {
            channels.push_back(end->channel);
        }
        Housekeeper::Instance().CloseAll(channels);
        return KnStatusOk;
    });
}
