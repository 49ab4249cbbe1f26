#include "names/named_socket.h"

#include "base/log.h"
#include "kn/status.h"
#include "names/runtime_directory.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

namespace borven_host {

using bos::logger::LogLevel;

namespace {

/// A socket is bound and listens under this name before it gets its own, so that no client meets one that is half done.
constexpr const char* UnfinishedName = "unfinished";

/// Connections that may wait for the housekeeper; more of them block in connect.
constexpr int Backlog = 256;

} // namespace

std::int32_t NamedSocket::Create(NameKind kind, std::string_view name, std::unique_ptr<NamedSocket>& socket) {
    UniqueFd directory;
    if (const auto status = OpenRuntimeDirectory(RuntimeDirectoryPath(), Missing::IsCreated, directory);
        status != KnStatusOk) {
        return status;
    }
    UniqueFd lock;
    if (const auto status = LockRuntimeDirectory(directory.Get(), lock); status != KnStatusOk) {
        return status;
    }
    const auto refuse = [&](const char* step) {
        const int error = errno;
        ::unlinkat(directory.Get(), UnfinishedName, 0);
        Log(LogLevel::Error, {"cannot claim the name ", name, ": ", step, ": ", ErrnoText(error)});
        return StatusOfErrno(error) == KnStatusDenied ? KnStatusDenied : KnStatusNoResources;
    };
    if (::mkdirat(directory.Get(), FolderOf(kind), 0700) != 0 && errno != EEXIST) {
        return refuse("mkdir");
    }
    const std::string path = PathOf(kind, name);
    if (const auto status = CheckFree(directory.Get(), path); status != KnStatusOk) {
        return status;
    }
    std::unique_ptr<NamedSocket> created(new NamedSocket(kind, name));
    if (const char* const failedStep = created->ListenUnderName(directory.Get(), path); failedStep != nullptr) {
        return refuse(failedStep);
    }
    created->directory = std::move(directory);
    socket = std::move(created);
    return KnStatusOk;
}

/// Returns: null, or the step that failed with errno.
const char* NamedSocket::ListenUnderName(int directoryFd, const std::string& path) {
    listening = OpenSocket(SOCK_NONBLOCK);
    if (!listening) {
        return "socket";
    }
    ::unlinkat(directoryFd, UnfinishedName, 0);
    struct stat made {};
    if (!BindToEntry(directoryFd, UnfinishedName, listening.Get()) ||
        ::fchmodat(directoryFd, UnfinishedName, 0600, 0) != 0 ||
        ::fstatat(directoryFd, UnfinishedName, &made, AT_SYMLINK_NOFOLLOW) != 0) {
        return "bind";
    }
    if (::listen(listening.Get(), Backlog) != 0) {
        return "listen";
    }
    if (::renameat(directoryFd, UnfinishedName, directoryFd, path.c_str()) != 0) {
        return "rename";
    }
    device = made.st_dev;
    inode = made.st_ino;
    return nullptr;
}

NamedSocket::~NamedSocket() {
    UniqueFd lock;
    if (inode == 0 || owner != ::getpid() || LockRuntimeDirectory(directory.Get(), lock) != KnStatusOk) {
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

} // namespace borven_host
