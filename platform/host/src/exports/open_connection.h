#pragma once

#include "base/deadline.h"
#include "base/no_throw.h"
#include "exports/handle_table.h"
#include "names/connect_to_name.h"

#include <cstdint>
#include <memory>
#include <utility>

namespace borven_host {

/// Client: connects to a name and joins the channel that the server offers or accepts it to.
/// Returns: 0 and `*handle`; KnStatusInvalidArgument; what ConnectToName and Connection::Join return.
inline std::int32_t OpenConnection(NameKind kind, const char* name, std::uint32_t timeoutMs,
                                   KnHandle* handle) noexcept {
    if (name == nullptr || handle == nullptr || !IsName(name)) {
        return KnStatusInvalidArgument;
    }
    return NoThrow([&] {
        const Deadline deadline = DeadlineIn(timeoutMs);
        UniqueFd socket;
        if (const auto status = ConnectToName(kind, name, deadline, socket); status != KnStatusOk) {
            return status;
        }
        std::shared_ptr<Connection> connection;
        if (const auto status = Connection::Join(std::move(socket), deadline, connection); status != KnStatusOk) {
            return status;
        }
        *handle = HandleTable::Instance().Add(std::make_shared<End>(std::move(connection)));
        return std::int32_t{KnStatusOk};
    });
}

} // namespace borven_host
