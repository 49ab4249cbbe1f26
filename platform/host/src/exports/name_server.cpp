#include "ns/name_server.h"

#include "base/no_throw.h"
#include "joining/housekeeper.h"
#include "names/name.h"
#include "names/runtime_directory.h"

using namespace borven_host;

namespace {

/// The only name server is the runtime directory.
constexpr NsHandle TheNameServer = 1;

} // namespace

std::int32_t NsCreate(const char* name, std::uint32_t, NsHandle* nameServer) noexcept {
    if (nameServer == nullptr) {
        return KnStatusInvalidArgument;
    }
    if (name != nullptr) {
        return KnStatusNotFound;
    }
    return NoThrow([&] {
        UniqueFd directory;
        const auto status =
            OpenRuntimeDirectory(RuntimeDirectoryPath(), Purpose::Connects, Missing::IsCreated, directory);
        if (status == KnStatusOk) {
            *nameServer = TheNameServer;
        }
        return status;
    });
}

std::int32_t NsPublishService(NsHandle nameServer, const char* type, const char* serverName,
                              const char* service) noexcept {
    if (nameServer != TheNameServer || type == nullptr || *type == '\0' || serverName == nullptr ||
        *serverName == '\0' || service == nullptr || !IsName(service)) {
        return KnStatusInvalidArgument;
    }
    return NoThrow([&] { return Housekeeper::Instance().Publish(service, type); });
}

std::int32_t NsLookupService(NsHandle nameServer, const char* service) noexcept {
    if (nameServer != TheNameServer || service == nullptr || !IsName(service)) {
        return KnStatusInvalidArgument;
    }
    return NoThrow([&] { return LookUpName(NameKind::Service, service); });
}
