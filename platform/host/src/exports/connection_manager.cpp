#include "kn/connection_manager.h"

#include "base/thread_name.h"
#include "exports/open_connection.h"
#include "joining/housekeeper.h"

#include <limits>

using namespace borven_host;

std::int32_t KnCmListen(const char* filter, std::uint32_t timeoutMs, char* clientName, char* serviceName) noexcept {
    if (clientName == nullptr || serviceName == nullptr) {
        return KnStatusInvalidArgument;
    }
    NameCallingThread("accept");
    return NoThrow([&] {
        const auto task = filter == nullptr ? std::nullopt : std::optional<std::string_view>(filter);
        return Housekeeper::Instance().Listen(task, DeadlineIn(timeoutMs), clientName, serviceName);
    });
}

std::int32_t KnCmAccept(const char* clientName, const char* serviceName, std::uint32_t iid, KnHandle channel,
                        KnHandle* handle) noexcept {
    if (clientName == nullptr || serviceName == nullptr || handle == nullptr ||
        iid > std::numeric_limits<std::uint16_t>::max()) {
        return KnStatusInvalidArgument;
    }
    return NoThrow([&]() -> std::int32_t {
        auto& table = HandleTable::Instance();
        std::shared_ptr<Channel> joined;
        std::int32_t refusal = KnStatusClosed;
        KnHandle given = channel;
        if (channel != KnInvalidHandle) {
            End* end = nullptr;
            if (table.Find(channel, end) == KnStatusOk) {
                joined = end->channel;
            }
        } else {
            refusal = NoThrow([&] {
                joined = std::make_shared<Channel>(Channel::DeadClient::ReplyAnswersOk);
                given = table.Add(std::make_shared<End>(joined, ServingThreadName(serviceName)));
                return KnStatusOk;
            });
        }
        const auto status = NoThrow([&] {
            return Housekeeper::Instance().Accept(clientName, serviceName, static_cast<std::uint16_t>(iid), joined,
                                                  refusal);
        });
        if (status == KnStatusOk) {
            *handle = given;
        } else if (channel == KnInvalidHandle) {
            table.Remove(given);
        }
        return status;
    });
}

std::int32_t KnCmConnect(const char* service, std::uint32_t timeoutMs, KnHandle* handle) noexcept {
    return OpenConnection(NameKind::Service, service, timeoutMs, handle);
}
