#include "names/peer.h"

#include "kn/status.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <string_view>

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace borven_host {

namespace {

/// Sets the descriptor of the process. Returns: as IdentifyPeer.
std::int32_t OpenProcess(int socket, Peer& peer) {
    int process = -1;
    socklen_t length = sizeof process;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &process, &length) != 0) {
        // Kernels before 6.5 offer the number only. It may name a younger process already: then this descriptor stays
        // silent when the peer exits, and the end of the socket has to be enough.
        process = errno == ENOPROTOOPT ? static_cast<int>(::syscall(SYS_pidfd_open, peer.pid, 0)) : -1;
    }
    if (process < 0 && peer.pid == 0) {
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

std::string Printable(std::string_view name) {
    std::string printable(name);
    for (char& c : printable) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '.' && c != '_') {
            c = '_';
        }
    }
    return printable.empty() ? "unknown" : printable;
}

/// Sets the start time and the name, as far as the system shows them. What it shows is the peer's: while the peer
/// lives, no other process has its number.
void ReadStat(Peer& peer) {
    if (peer.pid == 0) {
        return; // of another PID namespace
    }
    const UniqueFd file(::open(("/proc/" + std::to_string(peer.pid) + "/stat").c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 1024> buffer;
    const ssize_t length = file ? ::read(file.Get(), buffer.data(), buffer.size()) : 0;
    const std::string_view text(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    const std::size_t nameStart = text.find('(');
    const std::size_t nameEnd = text.rfind(')'); // a name may contain both
    if (nameStart == std::string_view::npos || nameEnd == std::string_view::npos || nameEnd < nameStart) {
        return;
    }
    pollfd exited{peer.process.Get(), POLLIN, 0};
    if (peer.process && ::poll(&exited, 1, 0) != 0) {
        return;
    }
    peer.program = Printable(text.substr(nameStart + 1, nameEnd - nameStart - 1));
    constexpr int fieldsBetween = 19; // the name and the start time, see proc(5)
    std::size_t field = nameEnd + 1;
    for (int i = 0; i < fieldsBetween && field != std::string_view::npos; ++i) {
        field = text.find(' ', field + 1);
    }
    if (field != std::string_view::npos) {
        std::from_chars(text.data() + field + 1, text.data() + text.size(), peer.startTime);
    }
}

} // namespace

std::int32_t IdentifyPeer(int socket, Peer& peer) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
        return KnStatusPeerGone;
    }
    peer.pid = credentials.pid;
    peer.uid = credentials.uid;
    peer.gid = credentials.gid;
    if (const auto status = OpenProcess(socket, peer); status != KnStatusOk) {
        return status;
    }
    ReadStat(peer);
    return KnStatusOk;
}

std::string Describe(const Peer& peer) {
    return "process " + std::to_string(peer.pid) + " (" + peer.program + ") of user " + std::to_string(peer.uid);
}

} // namespace borven_host
