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

/// How long giving a name up waits for the directory's lock: a stop does not last as long as another process holds
/// that.
constexpr std::chrono::milliseconds ReleasePatience{100};

/// Connections that may wait for the housekeeper; more of them block in connect.
constexpr int Backlog = 256;

} // namespace

std::int32_t NamedSocket::Create(NameKind kind, std::string_view name, std::unique_ptr<NamedSocket>& socket) {
    return Claim(kind, name, RuntimeDirectoryPath(), LockPatience, socket);
}

std::int32_t NamedSocket::ClaimAgain(std::unique_ptr<NamedSocket>& socket) const {
    return Claim(kind, name, directoryPath, std::chrono::milliseconds(0), socket);
}

std::int32_t NamedSocket::Claim(NameKind kind, std::string_view name, const std::string& path,
                                std::chrono::milliseconds patience, std::unique_ptr<NamedSocket>& socket) {
    UniqueFd directory;
    if (const auto status = OpenRuntimeDirectory(path, Purpose::Serves, Missing::IsCreated, directory);
        status != KnStatusOk) {
        return status;
    }
    UniqueFd lock;
    if (const auto status = LockRuntimeDirectory(directory.Get(), patience, lock); status != KnStatusOk) {
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
    const std::string entry = PathOf(kind, name);
    if (const auto status = CheckFree(directory.Get(), entry); status != KnStatusOk) {
        return status;
    }
    if (!GiveToGroup(directory.Get(), FolderOf(kind), GroupEntersOnly)) { // it is a folder: that was checked
        return refuse("chown");
    }
    std::unique_ptr<NamedSocket> created(new NamedSocket(kind, name, path));
    if (const char* const failedStep = created->ListenUnderName(directory.Get(), entry); failedStep != nullptr) {
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
        ::fchmodat(directoryFd, UnfinishedName, 0600, 0) != 0 || !GiveToGroup(directoryFd, UnfinishedName, 0660) ||
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

bool NamedSocket::IsInPlace() const {
    // By its path, not by the open directory: that may have been renamed.
    const UniqueFd now(::open(directoryPath.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat found {};
    // The kernel reports a removal when the link is gone, and only then hides the entry: until it has, a look finds a
    // socket without links.
    return now && ::fstatat(now.Get(), Entry().c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 && found.st_dev == device &&
           found.st_ino == inode && found.st_nlink != 0;
}

NamedSocket::~NamedSocket() {
    ReleaseWithin(ReleasePatience);
}

void NamedSocket::ReleaseWithin(std::chrono::milliseconds patience) {
    UniqueFd lock;
    if (inode == 0 || owner != ::getpid() || LockRuntimeDirectory(directory.Get(), patience, lock) != KnStatusOk) {
        return;
    }
    struct stat found {};
    if (::fstatat(directory.Get(), Entry().c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 && found.st_dev == device &&
        found.st_ino == inode) {
        ::unlinkat(directory.Get(), Entry().c_str(), 0);
    }
    inode = 0;
    // Fails while the folder holds other names.
    ::unlinkat(directory.Get(), FolderOf(kind), AT_REMOVEDIR);
}

} // namespace borven_host
