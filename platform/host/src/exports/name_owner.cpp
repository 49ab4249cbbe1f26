#include "kn/name_owner.h"

#include "base/no_throw.h"
#include "names/name.h"
#include "names/peer.h"
#include "names/runtime_directory.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

using namespace borven_host;

namespace {

KnCaller AsCaller(const Peer& peer) {
    KnCaller caller;
    caller.startTime = peer.startTime;
    caller.pid = peer.pid;
    caller.uid = peer.uid;
    const std::size_t length = std::min(peer.program.size(), sizeof caller.program - 1);
    std::copy_n(peer.program.begin(), length, caller.program);
    return caller;
}

} // namespace

std::int32_t KnOwnerOfName(KnNameKind kind, const char* name, KnCaller* owner) noexcept {
    if (name == nullptr || !IsName(name) || owner == nullptr) {
        return KnStatusInvalidArgument;
    }
    return NoThrow([&]() -> std::int32_t {
        UniqueFd directory;
        const auto opened = OpenRuntimeDirectory(RuntimeDirectoryPath(), Purpose::Connects, Missing::Fails, directory);
        if (opened != KnStatusOk) {
            return opened;
        }
        const UniqueFd socket = OpenSocket(SOCK_NONBLOCK);
        if (!socket) {
            return KnStatusNoResources;
        }
        const auto place = kind == KnNameKind::Connection ? NameKind::Static : NameKind::Service;
        const int error = ConnectToEntry(directory.Get(), PathOf(place, name), socket.Get());
        if (error != 0 && error != EAGAIN) {
            return StatusOfErrno(error);
        }
        Peer peer;
        if (error == 0) { // else more clients wait at the socket than it takes, so it cannot be asked
            IdentifyPeer(socket.Get(), peer);
        }
        *owner = AsCaller(peer);
        return KnStatusOk;
    });
}
