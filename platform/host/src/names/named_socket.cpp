#include "names/named_socket.h"

#include "base/log.h"
#include "kn/status.h"
#include "names/handshake.h"
#include "names/peer.h"
#include "names/runtime_directory.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <thread>

namespace borven_host {

namespace {

using bos::logger::LogLevel;

/// A socket is bound and listens under this name before it gets its own, so that no client ever meets half of it.
constexpr const char* unfinishedName = "unfinished";

const char* FolderOf(NameKind kind) {
    return kind == NameKind::Static ? "static" : "services";
}

std::string PathOf(NameKind kind, std::string_view name) {
    return std::string(FolderOf(kind)) + '/' + std::string(name);
}

std::int32_t StatusOf(int error) {
    switch (error) {
    case ENOENT:
    case ECONNREFUSED:
        return KnStatusNotFound;
    case EACCES:
    case EPERM:
    case ELOOP:
    case EPROTOTYPE:
        return KnStatusDenied;
    case EAGAIN:
        return KnStatusTimedOut;
    default:
        return KnStatusNoResources;
    }
}

/// The address of the file `descriptor`, or of `entry` below it. Socket addresses hold 107 characters only; paths and
/// names here may be longer, what /proc calls a descriptor never is.
sockaddr_un AddressOf(int descriptor, const char* entry = nullptr) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, entry ? "/proc/self/fd/%d/%s" : "/proc/self/fd/%d",
                  descriptor, entry);
    return address;
}

const sockaddr* Raw(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

UniqueFd OpenSocket(int flags) {
    return UniqueFd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0));
}

/// Locks `directory` until `lock` closes: a description of its own, so that it also excludes threads of this process.
/// Whoever holds it does so for a few system calls. Somebody who was stopped in between must not stop us too, and flock
/// knows no time limit, so this asks again and again.
std::int32_t Lock(int directory, UniqueFd& lock) {
    constexpr std::chrono::seconds patience{2};
    constexpr std::chrono::milliseconds pause{1};
    lock = UniqueFd(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock) {
        return KnStatusNoResources;
    }
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (::flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return KnStatusNoResources;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            Log(LogLevel::Error, {"somebody keeps the runtime directory locked"});
            return KnStatusTimedOut;
        }
        std::this_thread::sleep_for(pause);
    }
    return KnStatusOk;
}

/// Connects `socket` to the entry `path` of `directory`. Returns: 0 or a positive errno.
int ConnectToEntry(int directory, const std::string& path, int socket) {
    const UniqueFd entry(::openat(directory, path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!entry) {
        return errno;
    }
    struct stat found {};
    if (::fstat(entry.Get(), &found) == 0 && !S_ISSOCK(found.st_mode)) {
        return EPROTOTYPE;
    }
    const sockaddr_un address = AddressOf(entry.Get());
    while (::connect(socket, Raw(address), sizeof address) != 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

/// Returns: 0 when nobody listens at `path`, KnStatusAlreadyExists when somebody does, or why that cannot be told.
std::int32_t CheckFree(int directory, const std::string& path) {
    const UniqueFd probe = OpenSocket(SOCK_NONBLOCK);
    if (!probe) {
        return KnStatusNoResources;
    }
    const int error = ConnectToEntry(directory, path, probe.Get());
    switch (error) {
    case ENOENT:
    case ECONNREFUSED:
        return KnStatusOk;
    case 0:
    case EAGAIN: // it has more connections waiting than it takes
        return KnStatusAlreadyExists;
    case EPROTOTYPE:
        Log(LogLevel::Error, {"the name ", path, " is taken by a file that is not ours"});
        return KnStatusDenied;
    default:
        return StatusOf(error);
    }
}

} // namespace

bool IsName(std::string_view name) noexcept {
    return !name.empty() && name.size() <= 255 && name.find('/') == std::string_view::npos && name != "." &&
           name != "..";
}

std::int32_t NamedSocket::Create(NameKind kind, std::string_view name, std::unique_ptr<NamedSocket>& socket) {
    UniqueFd directory;
    if (const auto status = OpenRuntimeDirectory(Missing::IsCreated, directory); status != KnStatusOk) {
        return status;
    }
    UniqueFd lock;
    if (const auto status = Lock(directory.Get(), lock); status != KnStatusOk) {
        return status;
    }
    const auto refuse = [&](const char* step) {
        const int error = errno;
        ::unlinkat(directory.Get(), unfinishedName, 0);
        Log(LogLevel::Error, {"the name ", name, " cannot be taken: ", step, ": ", ErrnoText(error)});
        return StatusOf(error) == KnStatusDenied ? KnStatusDenied : KnStatusNoResources;
    };
    if (::mkdirat(directory.Get(), FolderOf(kind), 0700) != 0 && errno != EEXIST) {
        return refuse("mkdir");
    }
    const std::string path = PathOf(kind, name);
    if (const auto status = CheckFree(directory.Get(), path); status != KnStatusOk) {
        return status;
    }

    std::unique_ptr<NamedSocket> created(new NamedSocket(kind, name));
    created->listening = OpenSocket(SOCK_NONBLOCK);
    if (!created->listening) {
        return refuse("socket");
    }
    ::unlinkat(directory.Get(), unfinishedName, 0);
    const sockaddr_un address = AddressOf(directory.Get(), unfinishedName);
    struct stat made {};
    if (::bind(created->Get(), Raw(address), sizeof address) != 0 ||
        ::fchmodat(directory.Get(), unfinishedName, 0600, 0) != 0 ||
        ::fstatat(directory.Get(), unfinishedName, &made, AT_SYMLINK_NOFOLLOW) != 0) {
        return refuse("bind");
    }
    constexpr int backlog = 256; // more attempts than that at once have to wait for the housekeeper
    if (::listen(created->Get(), backlog) != 0) {
        return refuse("listen");
    }
    if (::renameat(directory.Get(), unfinishedName, directory.Get(), path.c_str()) != 0) {
        return refuse("rename");
    }
    created->device = made.st_dev;
    created->inode = made.st_ino;
    created->directory = std::move(directory);
    socket = std::move(created);
    return KnStatusOk;
}

NamedSocket::~NamedSocket() {
    UniqueFd lock;
    if (inode == 0 || owner != ::getpid() || Lock(directory.Get(), lock) != KnStatusOk) {
        return;
    }
    const std::string path = PathOf(kind, name);
    struct stat found {};
    if (::fstatat(directory.Get(), path.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 && found.st_dev == device &&
        found.st_ino == inode) {
        ::unlinkat(directory.Get(), path.c_str(), 0);
    }
    // Fails while the folder holds other names.
    ::unlinkat(directory.Get(), FolderOf(kind), AT_REMOVEDIR);
}

std::int32_t ConnectToName(NameKind kind, std::string_view name, Deadline deadline, UniqueFd& socket) {
    UniqueFd directory;
    if (const auto status = OpenRuntimeDirectory(Missing::Fails, directory); status != KnStatusOk) {
        return status;
    }
    UniqueFd connecting = OpenSocket(0);
    if (!connecting) {
        return KnStatusNoResources;
    }
    // For Unix sockets the send time-out is the one of connect; 0 would mean none.
    const int left = PollTimeout(deadline);
    const timeval limit{left < 0 ? 0 : left / 1000, left < 0 ? 0 : std::max(left % 1000 * 1000, 1000)};
    ::setsockopt(connecting.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (const int error = ConnectToEntry(directory.Get(), PathOf(kind, name), connecting.Get()); error != 0) {
        return StatusOf(error);
    }
    Peer server;
    if (const auto status = IdentifyPeer(connecting.Get(), server); status != KnStatusOk) {
        return status == KnStatusPeerGone ? KnStatusNotFound : status;
    }
    const Greeting greeting = MakeGreeting();
    // Fails only when the server is gone, and then the wait for its answer tells so.
    static_cast<void>(::send(connecting.Get(), &greeting, sizeof greeting, MSG_NOSIGNAL));
    const timeval none{};
    ::setsockopt(connecting.Get(), SOL_SOCKET, SO_SNDTIMEO, &none, sizeof none);
    socket = std::move(connecting);
    return KnStatusOk;
}

std::int32_t LookUpName(NameKind kind, std::string_view name) {
    UniqueFd directory;
    if (const auto status = OpenRuntimeDirectory(Missing::Fails, directory); status != KnStatusOk) {
        return status;
    }
    const auto status = CheckFree(directory.Get(), PathOf(kind, name));
    return status == KnStatusOk ? KnStatusNotFound : status == KnStatusAlreadyExists ? KnStatusOk : status;
}

} // namespace borven_host
