#include "names/peer.h"

#include "kn/status.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace borven_host {

std::int32_t IdentifyPeer(int socket, Peer& peer) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
        return KnStatusPeerGone;
    }
    if (credentials.uid != ::geteuid()) {
        return KnStatusDenied;
    }
    peer.pid = credentials.pid;

    int process = -1;
    length = sizeof process;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &process, &length) != 0) {
        // Kernels before 6.5 know the number only. It may name a younger process already: then this descriptor tells
        // nothing, and the end of the socket has to do.
        process = errno == ENOPROTOOPT ? static_cast<int>(::syscall(SYS_pidfd_open, credentials.pid, 0)) : -1;
    }
    if (process < 0 && credentials.pid == 0) {
        return KnStatusOk; // the peer lives outside of our process namespace
    }
    if (process >= 0) {
        peer.process = UniqueFd(process);
        return peer.process ? KnStatusOk : KnStatusNoResources;
    }
    switch (errno) {
    case ESRCH:
    case EINVAL:
    case ENODATA:
        return KnStatusPeerGone;
    case EMFILE:
    case ENFILE:
    case ENOMEM:
        return KnStatusNoResources;
    default:
        return KnStatusOk; // no such call here, or not permitted: the end of the socket has to do
    }
}

} // namespace borven_host
