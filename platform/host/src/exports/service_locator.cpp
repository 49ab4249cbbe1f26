#include "service_locator.h"

#include "base/log.h"
#include "exports/open_connection.h"
#include "joining/housekeeper.h"

#include <new>

using namespace borven_host;
using bos::logger::LogLevel;

KnHandle ServiceLocatorRegister(const char* connection, const ServiceLocatorDescriptor* services, std::uint32_t count,
                                std::uint32_t* iid) noexcept {
    KnHandle handle = KnInvalidHandle;
    const auto status = NoThrow([&]() -> std::int32_t {
        if (connection == nullptr || !IsName(connection) || (services == nullptr && count != 0)) {
            return KnStatusInvalidArgument;
        }
        const auto channel = std::make_shared<Channel>(Channel::DeadClient::ReplyReportsIt);
        const auto end = std::make_shared<End>(channel, "serve-static");
        const KnHandle given = HandleTable::Instance().Add(end);
        const auto offered = NoThrow([&] { return Housekeeper::Instance().Offer(connection, channel); });
        if (offered != KnStatusOk) {
            HandleTable::Instance().Remove(given);
            return offered;
        }
        handle = given;
        if (iid != nullptr) {
            *iid = count == 0 ? 0 : services[0].iid;
        }
        return KnStatusOk;
    });
    if (status != KnStatusOk) {
        try {
            Log(LogLevel::Error, {"cannot register the connection ", connection == nullptr ? "(null)" : connection,
                                  ": ", KnStatusText(status)});
        } catch (const std::bad_alloc&) {
            // The caller still gets the invalid handle.
        }
    }
    return handle;
}

std::int32_t ServiceLocatorConnect(const char* connection, std::uint32_t timeoutMs, KnHandle* handle) noexcept {
    return OpenConnection(NameKind::Static, connection, timeoutMs, handle);
}
