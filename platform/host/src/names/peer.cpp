#include "names/peer.h"

#include "kn/status.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>

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
        // Kernels before 6.5 offer the number only. It may name a younger process already: then this descriptor stays
        // silent when the peer exits, and the end of the socket has to be enough.
        process = errno == ENOPROTOOPT ? static_cast<int>(::syscall(SYS_pidfd_open, credentials.pid, 0)) : -1;
    }
    if (process < 0 && credentials.pid == 0) {
        return KnStatusOk; // the peer is outside of this process's PID namespace
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
        return KnStatusOk; // no such call here, or not permitted: the end of the socket has to be enough
    }
}

std::string TaskName(pid_t pid) {
    const UniqueFd file(::open(("/proc/" + std::to_string(pid) + "/comm").c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 32> buffer{};
    const ssize_t length = file ? ::read(file.Get(), buffer.data(), buffer.size()) : 0;
    std::string name(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    while (!name.empty() && name.back() == '\n') {
        name.pop_back();
    }
    for (char& c : name) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '.' && c != '_') {
            c = '_';
        }
    }
    return name.empty() ? "unknown" : name;
}

} // namespace borven_host
